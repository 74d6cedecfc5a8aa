#include "download/target_download.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "tuf/download_record.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using Phase = DownloadReceipt::Phase;

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

/// Built as a document, so that it passes every rule of a stored one.
DownloadReceipt receipt_of(std::string_view target, const json& reference, std::string_view state,
                           const json& description, std::string_view temporary) {
  return DownloadReceipt::parse(
      {{"schema_version", 1},
       {"kind", kLauncherDownload},
       {"nonce", nonce_of(target, temporary)},
       {"target", target},
       {"temporary", temporary},
       {"phase", state == "resumed" ? "prepared" : state},
       {"authorization",
        {{"length", description.at("length")}, {"hashes", description.at("hashes")}}},
       {"reference", reference}});
}

bool lists(const std::vector<FileEvidence>& files, const std::string& name) {
  return std::ranges::any_of(files, [&](const FileEvidence& file) { return file.name == name; });
}

}  // namespace

TargetDownloads::TargetDownloads(fs::path root) : root_(std::move(root)) {}

DownloadObserver TargetDownloads::observer(std::string target, json reference) {
  return [this, target = std::move(target), reference = std::move(reference)](
             std::string_view state, const json& description, std::string_view temporary) {
    heard(receipt_of(target, reference, state, description, temporary), state == "resumed");
  };
}

void TargetDownloads::heard(const DownloadReceipt& receipt, bool resumed) {
  static_cast<void>(path_of(receipt));  // refused before anything is read
  const auto held = owned_.find(receipt.nonce);
  if (resumed) return resume(receipt);
  if (held != owned_.end()) return progress(held->second, receipt);
  const ReceiptGroups groups = read_receipt_groups(root_);
  if (receipt.phase == Phase::complete && adopt(receipt, groups)) return;
  create(receipt, groups);
}

/// A final file that a crash left behind, with the receipt that fetched it: the download need not
/// be repeated, nor the receipt linger. The nonce of this call is forgotten.
bool TargetDownloads::adopt(const DownloadReceipt& receipt, const ReceiptGroups& groups) {
  for (const auto& [nonce, group] : groups) {
    if (owned_.contains(nonce) || !is_left_behind(group, receipt)) continue;
    const DownloadReceipt complete = group.receipt->in_phase(Phase::complete);
    if (complete != *group.receipt) atomic_write(path_of(complete), complete.text());
    owned_[nonce] = complete;
    return true;
  }
  return false;
}

bool TargetDownloads::is_left_behind(const ReceiptGroup& group,
                                     const DownloadReceipt& receipt) const {
  return group.receipt && group.receipt->same_claim(receipt) &&
         !bears_name(download(group.receipt->temporary)) && bears_name(path_of(*group.receipt)) &&
         is_stored(*group.receipt);
}

void TargetDownloads::resume(const DownloadReceipt& receipt) {
  const ReceiptGroups groups = read_receipt_groups(root_);
  const auto group = groups.find(receipt.nonce);
  require(group != groups.end() && group->second.receipt == receipt && is_stored(receipt) &&
              lists(group->second.resume_files, resume_record_name(receipt.temporary)),
          uncertain, "Resume requires the unchanged prepared receipt and matching checkpoint");
  owned_[receipt.nonce] = receipt;
}

void TargetDownloads::progress(const DownloadReceipt& held, const DownloadReceipt& receipt) {
  require(held.phase == Phase::prepared && receipt.phase == Phase::complete && is_stored(held),
          uncertain, "Download ownership changed before verification completed");
  atomic_write(path_of(receipt), receipt.text());
  owned_[receipt.nonce] = receipt;
}

void TargetDownloads::create(const DownloadReceipt& receipt, const ReceiptGroups& groups) {
  require(!groups.contains(receipt.nonce), uncertain,
          "New download nonce already belongs to retained metadata");
  std::size_t count = groups.size();
  if (count >= max_receipts) count -= drop_ownerless(groups);
  require(count < max_receipts, "launcher_storage_full",
          "Retained download receipts reached their capacity", {"self cleanup"});
  // Born whole, and refused if the name exists.
  atomic_create(path_of(receipt), receipt.text());
  owned_[receipt.nonce] = receipt;
}

/// How many receipts went.
std::size_t TargetDownloads::drop_ownerless(const ReceiptGroups& groups) const {
  std::size_t dropped = 0;
  for (const auto& [nonce, group] : groups) {
    if (owned_.contains(nonce) || !owns_nothing(group)) continue;
    remove_receipt(*group.receipt);
    ++dropped;
  }
  return dropped;
}

/// A whole receipt alone, without partial file or record, and without the file that it is for: a
/// full disk or a bad mirror leaves these, one a try.
bool TargetDownloads::owns_nothing(const ReceiptGroup& group) const {
  const auto& receipt = group.receipt;
  if (!receipt || group.files.size() != 1 || !group.resume_files.empty()) return false;
  if (bears_name(download(receipt->temporary)) || !is_stored(*receipt)) return false;
  const fs::path file = download(receipt->target);
  if (!bears_name(file)) return true;
  // Another file of that name is an earlier or later release's.
  try {
    verify_target_file(file, receipt->authorization.to_json(), nullptr);
    return false;
  } catch (const Error& error) {
    return error.code == "length_mismatch" || error.code == "hash_mismatch";
  }
}

void TargetDownloads::remove_receipt(const DownloadReceipt& receipt) const {
  const fs::path path = path_of(receipt);
  native_files::remove_or_trash(path, path.parent_path());
  sync_directory(path.parent_path());
}

bool TargetDownloads::is_stored(const DownloadReceipt& receipt) const {
  return read_file(path_of(receipt), kDownloadReceiptBytes) == receipt.text();
}

fs::path TargetDownloads::path_of(const DownloadReceipt& receipt) const {
  return safe_join(root_, download_receipt_path(receipt.nonce), true);
}

fs::path TargetDownloads::download(const std::string& name) const {
  return safe_join(root_, "downloads/" + name, true);
}

}  // namespace tavro
