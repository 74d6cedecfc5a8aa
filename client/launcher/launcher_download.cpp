#include "launcher/launcher_download.h"

#include "documents/launcher_contract.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "download/receipt_group.h"
#include "download/resume_evidence.h"
#include "launcher/launcher_record.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char uncertain[] = "launcher_download_uncertain";

/// A stored descriptor, by which receipts are measured.
struct Authority {
  const json& reference;
  std::size_t descriptor_bytes;
  LauncherManifest manifest;
};

Authority stored_authority(const fs::path& root, const json& reference) {
  const std::string& name = text_member(reference, "manifest_sha256");
  const std::string bytes =
      read_file(safe_join(root, "manifests/" + name + ".json", true), launcher_descriptor_bytes);
  Authority authority{
      .reference = reference,
      .descriptor_bytes = bytes.size(),
      .manifest = LauncherManifest::parse(parse_json(bytes, launcher_descriptor_bytes))};
  require(digest(bytes, "sha256") == name &&
              authority.manifest.build_id == text_member(reference, "build_id") &&
              authority.manifest.platform == native_platform(),
          uncertain, "Download retirement requires durable matching native manifest authority");
  return authority;
}

bool authorises(const Authority& authority, const DownloadReceipt& receipt) {
  const SignedContent& content = receipt.authorization;
  if (receipt.phase != DownloadReceipt::Phase::complete) return false;
  if (is_launcher_descriptor_target(receipt.target))
    return content.length == authority.descriptor_bytes;
  const LauncherManifest& manifest = authority.manifest;
  return receipt.release && receipt.release->to_json() == authority.reference &&
         receipt.target == manifest.archive_target && content.length == manifest.archive_length &&
         content.hashes.at("sha256") == manifest.archive_sha256;
}

}  // namespace

std::string launcher_download_resume_scope(std::string_view target, const json& reference) {
  return target_download_resume_scope(target, reference);
}

std::map<std::string, json> launcher_download_receipts(const fs::path& root) {
  return target_download_receipts(root);
}

void LauncherDownloads::retire(const json& reference) {
  const Authority authority = stored_authority(root_, reference);
  for (const auto& [nonce, receipt] : owned_) {
    require(authorises(authority, receipt), uncertain,
            "Download retirement lost its immutable authority");
    retire_one(receipt, text_member(reference, "manifest_sha256"));
  }
  owned_.clear();
}

void LauncherDownloads::retire_one(const DownloadReceipt& receipt,
                                   std::string_view manifest_sha256) const {
  require(!bears_name(safe_join(root_, "downloads/" + receipt.temporary, true)), uncertain,
          "A completed download temporary file reappeared");
  const fs::path file = safe_join(root_, "downloads/" + receipt.target, true);
  verify_target_file(file, receipt.authorization.to_json(), nullptr);
  require(!is_launcher_descriptor_target(receipt.target) ||
              digest_file(file, "sha256") == manifest_sha256,
          uncertain, "Descriptor cache differs from its durable manifest");
  require(is_stored(receipt), uncertain, "Download receipt changed before retirement");
  const ReceiptGroups groups = read_receipt_groups(root_);
  const auto group = groups.find(receipt.nonce);
  require(group != groups.end() && group->second.receipt == receipt, uncertain,
          "Download ownership changed before retirement");
  if (group->second.files.size() == 1 && group->second.resume_files.empty())
    remove_receipt(receipt);
}

}  // namespace tavro
