#include "download/resume_evidence.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "download/download_receipt.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/storage/allocated_file.h"
#include "tuf/download_record.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;

constexpr char uncertain[] = "launcher_download_uncertain";
constexpr std::size_t max_files = 64;
constexpr std::size_t max_entries = 96;

/// What checkpoints of one partial file have in common.
json without_position(json record) {
  record.erase("received");
  record.erase("prefix_sha256");
  return record;
}

/// The resume records of one receipt.
class ResumeEvidence {
 public:
  explicit ResumeEvidence(const json& receipt)
      : receipt_(receipt),
        temporary_(text_member(receipt, "temporary")),
        resume_name_(resume_record_name(temporary_)),
        scope_sha256_(digest(
            target_download_resume_scope(text_member(receipt, "target"), receipt.at("reference")),
            "sha256")) {}

  void take(const std::string& name, const std::string& bytes) {
    require(
        target_download_resume_file_name(name, resume_name_) && bytes.size() <= kResumeRecordBytes,
        uncertain, "Unknown resume metadata name or bound was preserved");
    auto found = torn_write::parse_unless_torn(bytes, kResumeRecordBytes);
    if (found)
      take_record(std::move(*found));
    else
      check_torn(name, bytes);
    files.push_back(file_evidence(name, bytes));
  }

  json files = json::array();
  /// The first whole record; null when there is none. The others name the same partial file.
  json record;

 private:
  void take_record(json found) {
    validate_target_resume_state(found, temporary_);
    require(found.at("target") == receipt_.at("target") &&
                found.at("authorization") == receipt_.at("authorization") &&
                found.at("scope_sha256") == scope_sha256_,
            uncertain, "Resume metadata differs from its owning receipt");
    require(record.is_null() || without_position(found) == without_position(record), uncertain,
            "Resume checkpoints disagree about native file ownership");
    if (record.is_null()) record = std::move(found);
  }

  void check_torn(const std::string& name, std::string_view bytes) const {
    constexpr char unknown[] = "Unknown resume-write bytes were preserved";
    require(name != resume_name_ && torn_write::is_cut_short(bytes), uncertain, unknown);
    const std::string start = R"({"authorization":)" + receipt_.at("authorization").dump() + ',';
    require(torn_write::agrees_with_start(bytes, start), uncertain, unknown);
    const json known = {{"kind", "tavro-target-resume"},
                        {"schema_version", 1},
                        {"scope_sha256", scope_sha256_},
                        {"target", receipt_.at("target")},
                        {"temporary", temporary_}};
    for (const auto& [key, value] : known.items())
      require(torn_write::agrees_with_member(bytes, key, value), uncertain,
              "Torn resume write shows a different or future contract");
  }

  const json& receipt_;
  const std::string temporary_;
  const std::string resume_name_;
  const std::string scope_sha256_;
};

ResumeEvidence read_evidence(const json& receipt, const Files& files) {
  ResumeEvidence evidence(receipt);
  require(files.size() <= max_files, "size_limit", "Frozen resume evidence exceeds its bound");
  for (const auto& [name, bytes] : files) evidence.take(name, bytes);
  return evidence;
}

/// No JSON exception leaves a reader of resume metadata.
template <typename Reader>
json read_resume_metadata(Reader&& reader) {
  return read_fields(uncertain, "Unknown resume metadata was preserved",
                     std::forward<Reader>(reader));
}

void require_recorded_file(const fs::path& partial, const json& record) {
  const json& identity = record.at("identity");
  AllocatedFile::verify_identity(
      {.path = partial,
       .size = record.at("authorization").at("length").get<unsigned long long>(),
       .device = identity.at(0).get<unsigned long long>(),
       .inode = identity.at(1).get<unsigned long long>(),
       .allocated = false});
}

}  // namespace

json file_evidence(std::string_view name, std::string_view bytes) {
  return {{"name", name}, {"length", bytes.size()}, {"sha256", digest(bytes, "sha256")}};
}

std::string target_download_resume_scope(std::string_view target, const json& reference) {
  return canonical_json(
      {{"kind", kLauncherDownload}, {"target", target}, {"reference", reference}});
}

bool target_download_resume_file_name(std::string_view name, std::string_view resume_name) {
  return name == resume_name || torn_write::is_temporary_name(name, resume_name);
}

json parse_target_download_resume_files(const json& receipt, const Files& files) {
  return read_resume_metadata([&] {
    require(!receipt.is_null() || files.empty(), uncertain,
            "Unowned resume evidence was preserved");
    if (receipt.is_null()) return json::array();
    validate_target_download_receipt(receipt);
    return read_evidence(receipt, files).files;
  });
}

json target_download_resume_files(const fs::path& root, const json& receipt) {
  if (!receipt.is_null()) validate_target_download_receipt(receipt);
  return ResumeScan(root).files(receipt);
}

ResumeScan::ResumeScan(fs::path root) : root_(std::move(root)) {}

json ResumeScan::files(const json& receipt) {
  if (receipt.is_null()) return json::array();
  return read_resume_metadata([&] {
    const std::string& temporary = text_member(receipt, "temporary");
    ResumeEvidence evidence = read_evidence(receipt, read_named(resume_record_name(temporary)));
    if (!evidence.record.is_null()) {
      const fs::path partial = safe_join(root_, "downloads/" + temporary, true);
      // Between publishing the final file and removing its record a crash leaves the record alone.
      if (bears_name(partial)) require_recorded_file(partial, evidence.record);
    }
    return std::move(evidence.files);
  });
}

Files ResumeScan::read_named(const std::string& resume_name) {
  Files found;
  const std::string start = resume_name + '.';
  for (const std::string& name : names_beside(resume_name)) {
    if (name != resume_name && !name.starts_with(start)) continue;
    require(target_download_resume_file_name(name, resume_name), uncertain,
            "Unknown resume metadata names were preserved");
    found.emplace(name, read_file(root_ / "downloads" / name, kResumeRecordBytes));
  }
  return found;
}

const std::vector<std::string>& ResumeScan::names_beside(const std::string& resume_name) {
  const std::string folder = "downloads/" + resume_name.substr(0, resume_name.rfind('/') + 1);
  const auto listed = names_.find(folder);
  if (listed != names_.end()) return listed->second;
  return names_[folder] = list(folder.substr(0, folder.size() - 1));
}

/// Paths below `downloads`; a folder that is not there holds nothing.
std::vector<std::string> ResumeScan::list(const std::string& folder) const {
  const fs::path path = safe_join(root_, folder, true);
  const fs::file_status status = fs::status(path);
  if (!fs::exists(status)) return {};
  require(fs::is_directory(status), "unsafe_path",
          "Download resume parent is not an ordinary directory");
  const std::string below = (folder + '/').substr(std::string_view("downloads/").size());
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(path)) {
    require(names.size() < max_entries, "size_limit",
            "Target resume metadata scan exceeds its bound");
    names.push_back(below + path_utf8(entry.path().filename()));
  }
  return names;
}

}  // namespace tavro
