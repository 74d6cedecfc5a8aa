#include "download/receipt_group.h"

#include <nlohmann/json.hpp>

#include <set>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/folder_access.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;
using Phase = DownloadReceipt::Phase;

constexpr char uncertain[] = "launcher_download_uncertain";
constexpr std::size_t nonce_size = 32;
constexpr std::size_t max_files = 64;

/// Whether the bytes are the start of a receipt, as far as all receipts are the same.
bool could_start_a_receipt(std::string_view bytes) {
  return torn_write::agrees_with_start(bytes, R"({"authorization":)") &&
         torn_write::agrees_with_member(bytes, "kind", kLauncherDownload) &&
         torn_write::agrees_with_member(bytes, "schema_version", 1);
}

/// What the files of one nonce have said so far.
class GroupReader {
 public:
  explicit GroupReader(std::string_view nonce) { group_.nonce = nonce; }

  void take(const std::string& name, const std::string& bytes) {
    require(target_download_file_name(name, group_.nonce) && bytes.size() <= kDownloadReceiptBytes,
            uncertain, "Unknown download receipt write was preserved");
    group_.files.push_back(FileEvidence::of(name, bytes));
    const auto receipt = torn_write::parse_unless_torn(bytes, kDownloadReceiptBytes);
    if (receipt)
      take_receipt(DownloadReceipt::parse(*receipt));
    else
      take_torn(name, bytes);
  }

  ReceiptGroup result() {
    for (const std::string& bytes : torn_)
      require(!group_.receipt || could_become_the_receipt(bytes), uncertain,
              "Torn receipt write does not match its known download");
    return std::move(group_);
  }

 private:
  void take_receipt(DownloadReceipt found) {
    require(found.nonce == group_.nonce, uncertain,
            "Download receipt filename differs from its ownership identity");
    std::optional<DownloadReceipt>& best = group_.receipt;
    require(!best || found.in_phase(best->phase) == *best, uncertain,
            "Atomic receipt writes disagree about their owned download");
    if (best && (best->phase == Phase::complete || found.phase == Phase::prepared)) return;
    best = std::move(found);
    group_.receipt_sha256 = group_.files.back().sha256;
  }

  /// Only whole files are ever moved to the final name, so that a torn write is never there.
  void take_torn(const std::string& name, const std::string& bytes) {
    const bool is_final = name.size() == nonce_size + std::string_view(".json").size();
    require(!is_final && torn_write::is_cut_short(bytes) && could_start_a_receipt(bytes), uncertain,
            "Unrecognized receipt-write bytes were preserved");
    torn_.push_back(bytes);
  }

  bool could_become_the_receipt(const std::string& bytes) const {
    return group_.receipt->in_phase(Phase::prepared).text().starts_with(bytes) ||
           group_.receipt->in_phase(Phase::complete).text().starts_with(bytes);
  }

  ReceiptGroup group_;
  std::vector<std::string> torn_;
};

std::map<std::string, Files> read_receipt_files(const fs::path& root) {
  const fs::path folder = safe_join(root, "download-intents", true);
  std::map<std::string, Files> found;
  for (const auto& entry :
       folder_entries(folder, max_files, "Target download receipt count exceeds its scan bound")) {
    const std::string name = path_utf8(entry.filename());
    const std::string nonce = name.substr(0, nonce_size);
    require(target_download_file_name(name, nonce), uncertain, [&entry] {
      return "Unknown download receipt names preserve the target store: " + path_utf8(entry);
    });
    found[nonce].emplace(name, read_file(entry, kDownloadReceiptBytes));
  }
  return found;
}

/// What one receipt holds as its partial file or record, no other may claim as its finished target.
void require_separate_targets(const ReceiptGroups& groups) {
  std::set<std::string> temporary;
  for (const auto& [nonce, group] : groups) {
    if (!group.receipt) continue;
    temporary.insert(group.receipt->temporary);
    temporary.insert(resume_record_name(group.receipt->temporary));
    for (const FileEvidence& file : group.resume_files) temporary.insert(file.name);
  }
  for (const auto& [nonce, group] : groups)
    require(!group.receipt || !temporary.contains(group.receipt->target), uncertain,
            "Download target and partial ownership overlap; preserve them");
}

}  // namespace

ReceiptGroup ReceiptGroup::parse(std::string_view nonce, const Files& files) {
  require(is_lower_hex(nonce, nonce_size) && !files.empty() && files.size() <= max_files, uncertain,
          "Invalid frozen download receipt group");
  GroupReader group(nonce);
  for (const auto& [name, bytes] : files) group.take(name, bytes);
  return group.result();
}

json ReceiptGroup::to_json() const {
  return {{"nonce", nonce},
          {"receipt", receipt ? receipt->to_json() : json()},
          {"receipt_sha256", receipt ? json(receipt_sha256) : json()},
          {"files", evidence_json(files)},
          {"resume_files", evidence_json(resume_files)},
          {"phase", receipt ? "partial" : "metadata"}};
}

ReceiptGroups read_receipt_groups(const fs::path& root) {
  ReceiptGroups groups;
  ResumeScan resumes(root);
  for (const auto& [nonce, files] : read_receipt_files(root)) {
    ReceiptGroup group = ReceiptGroup::parse(nonce, files);
    if (group.receipt) group.resume_files = resumes.files(*group.receipt);
    groups.emplace(nonce, std::move(group));
  }
  require_separate_targets(groups);
  return groups;
}

bool target_download_file_name(std::string_view name, std::string_view nonce) {
  const std::string receipt = std::string(nonce) + ".json";
  return is_lower_hex(nonce, nonce_size) &&
         (name == receipt || torn_write::is_temporary_name(name, receipt));
}

json parse_target_download_receipt_group(std::string_view nonce, const Files& files) {
  return ReceiptGroup::parse(nonce, files).to_json();
}

std::map<std::string, json> target_download_receipts(const fs::path& root) {
  std::map<std::string, json> groups;
  for (const auto& [nonce, group] : read_receipt_groups(root))
    groups.emplace(nonce, group.to_json());
  return groups;
}

}  // namespace tavro
