#include "download/download_receipt.h"

#include <nlohmann/json.hpp>

#include <set>
#include <utility>
#include <vector>

#include "documents/launcher_contract.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
#include "download/resume_evidence.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"
#include "tuf/download_record.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char uncertain[] = "launcher_download_uncertain";
constexpr std::size_t nonce_size = 32;
constexpr std::size_t digest_size = 64;
constexpr std::size_t max_files = 64;
constexpr unsigned long long max_descriptor_bytes = 524288;
constexpr unsigned long long max_target_bytes = 1073741824;

bool is_phase(const json& phase) { return phase == "prepared" || phase == "complete"; }

bool has_known_form(const json& receipt) {
  return receipt.is_object() && receipt.size() == 8 && has_integer(receipt, "schema_version", 1) &&
         has_text(receipt, "kind", kLauncherDownload) &&
         is_lower_hex_text(receipt.at("nonce"), nonce_size) && receipt.at("target").is_string() &&
         receipt.at("temporary").is_string() && is_phase(receipt.at("phase")) &&
         receipt.contains("authorization") && receipt.contains("reference");
}

bool has_known_bounds(const json& authorization, unsigned long long max_bytes) {
  return authorization.is_object() && authorization.size() == 2 &&
         authorization.at("length").is_number_unsigned() &&
         authorization.at("length").get<unsigned long long>() <= max_bytes &&
         authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
         authorization.at("hashes").size() <= 2;
}

bool is_known_hash(const std::string& algorithm, const json& value) {
  return (algorithm == "sha256" && is_lower_hex_text(value, digest_size)) ||
         (algorithm == "sha512" && is_lower_hex_text(value, 2 * digest_size));
}

bool names_release(const json& reference) {
  return reference.is_object() && reference.size() == 2 &&
         is_lower_hex_text(reference.at("manifest_sha256"), digest_size) &&
         reference.contains("build_id");
}

void check_reference(const json& receipt, bool of_descriptor) {
  const json& reference = receipt.at("reference");
  if (of_descriptor) {
    require(reference.is_null(), uncertain,
            "Descriptor download must not invent an installed reference");
    return;
  }
  require(names_release(reference) && receipt.at("authorization").at("hashes").contains("sha256"),
          uncertain, "Archive download has no known manifest identity");
  validate_identifier(text_member(reference, "build_id"));
}

void check_receipt(const json& receipt) {
  require(has_known_form(receipt), uncertain, "Unknown target download receipt was preserved");
  const auto& target = text_member(receipt, "target");
  const auto& temporary = text_member(receipt, "temporary");
  validate_relative_path(target, true);
  validate_relative_path(temporary, true);
  require(temporary == partial_name(target, text_member(receipt, "nonce")), uncertain,
          "Download temporary path differs from its owned nonce");
  const bool of_descriptor = is_launcher_descriptor_target(target);
  const json& authorization = receipt.at("authorization");
  require(has_known_bounds(authorization, of_descriptor ? max_descriptor_bytes : max_target_bytes),
          uncertain, "Download authorization exceeds its known bounds");
  for (const auto& [algorithm, value] : authorization.at("hashes").items())
    require(is_known_hash(algorithm, value), uncertain,
            "Unknown download hash contract was preserved");
  check_reference(receipt, of_descriptor);
  require(receipt.dump().size() <= kDownloadReceiptBytes, "size_limit",
          "Download receipt exceeds its bounded format");
}

json in_phase(json receipt, std::string_view phase) {
  receipt["phase"] = phase;
  return receipt;
}

/// Whether the bytes are the start of a receipt, as far as all receipts are the same.
bool could_start_a_receipt(std::string_view bytes) {
  return torn_write::agrees_with_start(bytes, R"({"authorization":)") &&
         torn_write::agrees_with_member(bytes, "kind", kLauncherDownload) &&
         torn_write::agrees_with_member(bytes, "schema_version", 1);
}

/// What the files of one nonce have said so far.
class ReceiptGroup {
 public:
  explicit ReceiptGroup(std::string_view nonce) : nonce_(nonce) {}

  void take(const std::string& name, const std::string& bytes) {
    require(target_download_file_name(name, nonce_) && bytes.size() <= kDownloadReceiptBytes,
            uncertain, "Unknown download receipt write was preserved");
    files_.push_back(file_evidence(name, bytes));
    auto receipt = torn_write::parse_unless_torn(bytes, kDownloadReceiptBytes);
    if (receipt)
      take_receipt(std::move(*receipt));
    else
      take_torn(name, bytes);
  }

  json result() const {
    for (const std::string& bytes : torn_)
      require(receipt_.is_null() || could_become_the_receipt(bytes), uncertain,
              "Torn receipt write does not match its known download");
    return {{"nonce", nonce_},
            {"receipt", receipt_},
            {"receipt_sha256", receipt_sha256_},
            {"files", files_},
            {"resume_files", json::array()},
            {"phase", receipt_.is_null() ? "metadata" : "partial"}};
  }

 private:
  void take_receipt(json receipt) {
    validate_target_download_receipt(receipt);
    require(receipt.at("nonce") == nonce_, uncertain,
            "Download receipt filename differs from its ownership identity");
    require(receipt_.is_null() || in_phase(receipt, "") == in_phase(receipt_, ""), uncertain,
            "Atomic receipt writes disagree about their owned download");
    if (!receipt_.is_null() &&
        (receipt_.at("phase") == "complete" || receipt.at("phase") == "prepared"))
      return;
    receipt_ = std::move(receipt);
    receipt_sha256_ = files_.back().at("sha256");
  }

  /// Only whole files are ever moved to the final name, so that a torn write is never there.
  void take_torn(const std::string& name, const std::string& bytes) {
    const bool is_final = name.size() == nonce_.size() + std::string_view(".json").size();
    require(!is_final && torn_write::is_cut_short(bytes) && could_start_a_receipt(bytes), uncertain,
            "Unrecognized receipt-write bytes were preserved");
    torn_.push_back(bytes);
  }

  bool could_become_the_receipt(const std::string& bytes) const {
    return in_phase(receipt_, "prepared").dump().starts_with(bytes) ||
           in_phase(receipt_, "complete").dump().starts_with(bytes);
  }

  const std::string_view nonce_;
  json files_ = json::array();
  json receipt_;
  json receipt_sha256_;
  std::vector<std::string> torn_;
};

using Files = std::map<std::string, std::string>;

std::map<std::string, Files> read_receipt_files(const fs::path& root) {
  const fs::path folder = safe_join(root, "download-intents", true);
  std::map<std::string, Files> found;
  std::size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    require(++entries <= max_files, "size_limit",
            "Target download receipt count exceeds its scan bound");
    const std::string name = path_utf8(entry.path().filename());
    const std::string nonce = name.substr(0, nonce_size);
    require(target_download_file_name(name, nonce), uncertain,
            "Unknown download receipt names preserve the target store");
    found[nonce].emplace(name, read_file(entry.path(), kDownloadReceiptBytes));
  }
  return found;
}

/// What one receipt holds as its partial file or record, no other may claim as its finished target.
void require_separate_targets(const std::map<std::string, json>& groups) {
  std::set<json> temporary;
  for (const auto& [nonce, group] : groups) {
    const json& receipt = group.at("receipt");
    if (receipt.is_null()) continue;
    const auto& partial = text_member(receipt, "temporary");
    temporary.insert(partial);
    temporary.insert(resume_record_name(partial));
    for (const json& file : group.at("resume_files")) temporary.insert(file.at("name"));
  }
  for (const auto& [nonce, group] : groups)
    require(group.at("receipt").is_null() || !temporary.contains(group.at("receipt").at("target")),
            uncertain, "Download target and partial ownership overlap; preserve them");
}

}  // namespace

std::string download_receipt_path(std::string_view nonce) {
  return "download-intents/" + std::string(nonce) + ".json";
}

bool is_launcher_descriptor_target(std::string_view target) {
  return target == launcher_manifest_target(native_platform());
}

bool target_download_file_name(std::string_view name, std::string_view nonce) {
  const std::string receipt = std::string(nonce) + ".json";
  return is_lower_hex(nonce, nonce_size) &&
         (name == receipt || torn_write::is_temporary_name(name, receipt));
}

void validate_target_download_receipt(const json& receipt) {
  read_fields(uncertain, "Malformed target download receipt was preserved",
              [&] { check_receipt(receipt); });
}

json parse_target_download_receipt_group(std::string_view nonce, const Files& files) {
  require(is_lower_hex(nonce, nonce_size) && !files.empty() && files.size() <= max_files, uncertain,
          "Invalid frozen download receipt group");
  ReceiptGroup group(nonce);
  for (const auto& [name, bytes] : files) group.take(name, bytes);
  return group.result();
}

std::map<std::string, json> target_download_receipts(const fs::path& root) {
  std::map<std::string, json> groups;
  ResumeScan resumes(root);
  for (const auto& [nonce, files] : read_receipt_files(root)) {
    json group = parse_target_download_receipt_group(nonce, files);
    group["resume_files"] = resumes.files(group.at("receipt"));
    groups.emplace(nonce, std::move(group));
  }
  require_separate_targets(groups);
  return groups;
}

}  // namespace tavro
