#include "download/target_download.h"

#include <algorithm>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "download/download_receipt.h"
#include "platform/files/durable_files.h"
#include "platform/files/safe_path.h"
#include "tuf/download_record.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char uncertain[] = "launcher_download_uncertain";
constexpr std::size_t max_receipts = 32;
constexpr std::size_t nonce_size = 32;

std::string_view nonce_of(std::string_view target, std::string_view temporary) {
  const std::size_t start = target.size() + 1;
  const auto nonce = temporary.substr(std::min(start, temporary.size()), nonce_size);
  require(nonce.size() == nonce_size && temporary == partial_name(target, nonce), uncertain,
          "TUF download did not supply its exact owned staging name");
  return nonce;
}

json receipt_of(std::string_view target, const json& reference, std::string_view state,
                const json& description, std::string_view temporary) {
  json receipt = {{"schema_version", 1},
                  {"kind", kLauncherDownload},
                  {"nonce", nonce_of(target, temporary)},
                  {"target", target},
                  {"temporary", temporary},
                  {"phase", state == "resumed" ? "prepared" : state},
                  {"authorization",
                   {{"length", description.at("length")}, {"hashes", description.at("hashes")}}},
                  {"reference", reference}};
  validate_target_download_receipt(receipt);
  return receipt;
}

/// The same download, whoever started it and however far it has come.
bool same_claim(const json& left, const json& right) {
  return left.at("target") == right.at("target") &&
         left.at("authorization") == right.at("authorization") &&
         left.at("reference") == right.at("reference");
}

bool lists(const json& files, const std::string& name) {
  return std::any_of(files.begin(), files.end(),
                     [&](const json& file) { return file.at("name") == name; });
}

}  // namespace

TargetDownloads::TargetDownloads(fs::path root) : root_(std::move(root)) {}

DownloadObserver TargetDownloads::observer(std::string target, json reference) {
  return [this, target = std::move(target), reference = std::move(reference)](
             std::string_view state, const json& description, std::string_view temporary) {
    heard(receipt_of(target, reference, state, description, temporary), state == "resumed");
  };
}

void TargetDownloads::heard(const json& receipt, bool resumed) {
  static_cast<void>(path_of(receipt));  // refused before anything is read
  const auto held = owned_.find(text_member(receipt, "nonce"));
  if (resumed) return resume(receipt);
  if (held != owned_.end()) return progress(held->second, receipt);
  const Groups groups = target_download_receipts(root_);
  if (receipt.at("phase") == "complete" && adopt(receipt, groups)) return;
  create(receipt, groups);
}

/// A final file that a crash left behind, with the receipt that fetched it: the download need not
/// be repeated, nor the receipt linger. The nonce of this call is forgotten.
bool TargetDownloads::adopt(const json& receipt, const Groups& groups) {
  for (const auto& [nonce, group] : groups) {
    if (owned_.contains(nonce) || !is_left_behind(group, receipt)) continue;
    json complete = group.at("receipt");
    complete["phase"] = "complete";
    if (complete != group.at("receipt")) atomic_write(path_of(complete), complete.dump());
    owned_[nonce] = std::move(complete);
    return true;
  }
  return false;
}

bool TargetDownloads::is_left_behind(const json& group, const json& receipt) const {
  const json& stored = group.at("receipt");
  return !stored.is_null() && same_claim(stored, receipt) &&
         !bears_name(safe_join(root_, "downloads/" + text_member(stored, "temporary"), true)) &&
         bears_name(path_of(stored)) && is_stored(stored);
}

void TargetDownloads::resume(const json& receipt) {
  const Groups groups = target_download_receipts(root_);
  const auto group = groups.find(text_member(receipt, "nonce"));
  require(group != groups.end() && group->second.at("receipt") == receipt && is_stored(receipt) &&
              lists(group->second.at("resume_files"),
                    resume_record_name(text_member(receipt, "temporary"))),
          uncertain, "Resume requires the unchanged prepared receipt and matching checkpoint");
  owned_[text_member(receipt, "nonce")] = receipt;
}

void TargetDownloads::progress(const json& held, const json& receipt) {
  require(held.at("phase") == "prepared" && receipt.at("phase") == "complete" && is_stored(held),
          uncertain, "Download ownership changed before verification completed");
  atomic_write(path_of(receipt), receipt.dump());
  owned_[text_member(receipt, "nonce")] = receipt;
}

void TargetDownloads::create(const json& receipt, const Groups& groups) {
  const std::string& nonce = text_member(receipt, "nonce");
  require(!groups.contains(nonce), uncertain,
          "New download nonce already belongs to retained metadata");
  require(groups.size() < max_receipts, "launcher_storage_full",
          "Retained download receipts reached their capacity", {"self cleanup"});
  // Born whole, and refused if the name exists.
  atomic_create(path_of(receipt), receipt.dump());
  owned_[nonce] = receipt;
}

bool TargetDownloads::is_stored(const json& receipt) const {
  return read_file(path_of(receipt), kDownloadReceiptBytes) == receipt.dump();
}

fs::path TargetDownloads::path_of(const json& receipt) const {
  return safe_join(root_, download_receipt_path(text_member(receipt, "nonce")), true);
}

}  // namespace tavro
