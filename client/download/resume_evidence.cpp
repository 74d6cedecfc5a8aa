#include "download/resume_evidence.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/folder_access.h"
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
bool same_file(const ResumeRecord& left, const ResumeRecord& right) {
  return left.target == right.target && left.authorization == right.authorization &&
         left.device == right.device && left.inode == right.inode &&
         left.scope_sha256 == right.scope_sha256;
}

std::string scope_of(const DownloadReceipt& receipt) {
  const json reference = receipt.release ? receipt.release->to_json() : json();
  return digest(target_download_resume_scope(receipt.target, reference), "sha256");
}

/// The resume records of one receipt.
class ResumeEvidence {
 public:
  explicit ResumeEvidence(const DownloadReceipt& receipt)
      : temporary_(receipt.temporary),
        claim_{.target = receipt.target,
               .authorization = receipt.authorization,
               .scope_sha256 = scope_of(receipt)} {}

  void take(const std::string& name, const std::string& bytes) {
    require(
        target_download_resume_file_name(name, resume_name_) && bytes.size() <= kResumeRecordBytes,
        uncertain, "Unknown resume metadata name or bound was preserved");
    const auto found = torn_write::parse_unless_torn(bytes, kResumeRecordBytes);
    if (found)
      take_record(ResumeRecord::parse(*found, temporary_));
    else
      check_torn(name, bytes);
    files.push_back(FileEvidence::of(name, bytes));
  }

  std::vector<FileEvidence> files;
  /// The first whole record, if there is one. The others name the same partial file.
  std::optional<ResumeRecord> record;

 private:
  void take_record(ResumeRecord found) {
    require(claim_.covers(found), uncertain, "Resume metadata differs from its owning receipt");
    require(!record || same_file(found, *record), uncertain,
            "Resume checkpoints disagree about native file ownership");
    if (!record) record = std::move(found);
  }

  void check_torn(const std::string& name, std::string_view bytes) const {
    constexpr char unknown[] = "Unknown resume-write bytes were preserved";
    require(name != resume_name_ && torn_write::is_cut_short(bytes), uncertain, unknown);
    const std::string start = R"({"authorization":)" + claim_.authorization.to_json().dump() + ',';
    require(torn_write::agrees_with_start(bytes, start), uncertain, unknown);
    const json known = {{"kind", kResumeRecordKind},
                        {"schema_version", 1},
                        {"scope_sha256", claim_.scope_sha256},
                        {"target", claim_.target},
                        {"temporary", temporary_}};
    for (const auto& [key, value] : known.items())
      require(torn_write::agrees_with_member(bytes, key, value), uncertain,
              "Torn resume write shows a different or future contract");
  }

  const std::string temporary_;
  const std::string resume_name_ = resume_record_name(temporary_);
  const DownloadClaim claim_;
};

ResumeEvidence read_evidence(const DownloadReceipt& receipt, const Files& files) {
  ResumeEvidence evidence(receipt);
  require(files.size() <= max_files, "size_limit", "Frozen resume evidence exceeds its bound");
  for (const auto& [name, bytes] : files) evidence.take(name, bytes);
  return evidence;
}

void require_recorded_file(const fs::path& partial, const ResumeRecord& record) {
  AllocatedFile::verify_identity({.path = partial,
                                  .size = record.authorization.length,
                                  .device = record.device,
                                  .inode = record.inode,
                                  .allocated = false});
}

}  // namespace

FileEvidence FileEvidence::of(std::string_view name, std::string_view bytes) {
  return {std::string(name), bytes.size(), digest(bytes, "sha256")};
}

json evidence_json(const std::vector<FileEvidence>& files) {
  json list = json::array();
  for (const FileEvidence& file : files)
    list.push_back({{"name", file.name}, {"length", file.length}, {"sha256", file.sha256}});
  return list;
}

std::string target_download_resume_scope(std::string_view target, const json& reference) {
  return canonical_json(
      {{"kind", kLauncherDownload}, {"target", target}, {"reference", reference}});
}

bool target_download_resume_file_name(std::string_view name, std::string_view resume_name) {
  return name == resume_name || torn_write::is_temporary_name(name, resume_name);
}

json parse_target_download_resume_files(const json& receipt, const Files& files) {
  require(!receipt.is_null() || files.empty(), uncertain, "Unowned resume evidence was preserved");
  if (receipt.is_null()) return json::array();
  return evidence_json(read_evidence(DownloadReceipt::parse(receipt), files).files);
}

json target_download_resume_files(const fs::path& root, const json& receipt) {
  if (receipt.is_null()) return json::array();
  return evidence_json(ResumeScan(root).files(DownloadReceipt::parse(receipt)));
}

ResumeScan::ResumeScan(fs::path root) : root_(std::move(root)) {}

std::vector<FileEvidence> ResumeScan::files(const DownloadReceipt& receipt) {
  ResumeEvidence evidence =
      read_evidence(receipt, read_named(resume_record_name(receipt.temporary)));
  if (evidence.record) {
    const fs::path partial = safe_join(root_, "downloads/" + receipt.temporary, true);
    // Between publishing the final file and removing its record a crash leaves the record alone.
    if (bears_name(partial)) require_recorded_file(partial, *evidence.record);
  }
  return std::move(evidence.files);
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
  for (const auto& entry :
       folder_entries(path, max_entries, "Target resume metadata scan exceeds its bound"))
    names.push_back(below + path_utf8(entry.filename()));
  return names;
}

}  // namespace tavro
