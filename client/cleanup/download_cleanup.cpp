#include "cleanup/download_cleanup.h"

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cleanup/cleanup_work.h"
#include "documents/launcher_contract.h"
#include "domain/error.h"
#include "download/receipt_group.h"
#include "installation/data_folder.h"
#include "platform/files/held_directory.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/host/native_platform.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// The file of this name; empty when none is left, or something else lies there.
fs::path download(const CleanupWork& work, const std::string& name) {
  try {
    fs::path path = work.child("downloads/" + name);
    return is_file(path) && !work.took(path) ? path : fs::path();
  } catch (const Error&) {
    return {};
  }
}

bool verifies(const fs::path& path, const SignedContent& content) {
  try {
    verify_target_file(path, content.to_json(), {});
    return true;
  } catch (const Error&) {
    return false;
  }
}

void drop_verified(CleanupWork& work, const std::string& target, const SignedContent& content) {
  const fs::path path = download(work, target);
  if (!path.empty() && verifies(path, content)) work.drop("download", path);
}

/// The receipt goes last: until then it explains the others.
void clean_group(CleanupWork& work, const ReceiptGroup& group) {
  if (const auto& receipt = group.receipt) {
    const fs::path partial = download(work, receipt->temporary);
    if (!partial.empty()) work.drop("download", partial);
    for (const FileEvidence& file : group.resume_files)
      work.drop("download_record", work.child("downloads/" + file.name));
    drop_verified(work, receipt->target, receipt->authorization);
    const fs::path place = work.child("downloads/" + receipt->temporary);
    if (stands(place) && !work.took(place))
      return work.keep(work.child(download_receipt_path(group.nonce)),
                       "What stands at its partial file's place is no file");
  }
  for (const FileEvidence& file : group.files)
    work.drop("download_record", work.child("download-intents/" + file.name));
}

/// Downloads whose receipts were retired are explained by a stored descriptor.
void clean_unpacked(CleanupWork& work) {
  const auto described = [](unsigned long long length, const std::string& sha256) {
    return SignedContent{.length = length, .hashes = {{"sha256", sha256}}};
  };
  for (const auto& entry : children(work.child("manifests")))
    work.consider(entry, [&] {
      const auto manifest = stored_descriptor(entry);
      if (!manifest) return;
      drop_verified(work, launcher_manifest_target(native_platform()),
                    described(fs::file_size(entry), leading_id(entry, digest_characters, ".json")));
      drop_verified(work, manifest->archive_target,
                    described(manifest->archive_length, manifest->archive_sha256));
    });
}

/// Whether a kill during its removal left the file: its receipt may be gone by then.
bool is_half_removed(const fs::path& path) {
  const auto node = posix_files::node_at(path);
  return node && posix_files::is_set_aside(path.filename().native(), *node);
}

/// What is left has no owner; the folders that only downloads made go once they are empty.
void clean_other_downloads(CleanupWork& work) {
  std::vector<fs::path> entries;
  walk_tree(work.child("downloads"), cleanup_tree_entries, "The store holds too many downloads",
            [&](const fs::directory_entry& entry, std::string_view) { entries.push_back(entry); });
  std::set<fs::path> occupied;
  // From the end, since a folder comes before what it holds.
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    if (work.took(*entry)) continue;
    if (is_half_removed(*entry)) {
      work.drop("download", *entry);
      continue;
    }
    if (is_folder(*entry) && !occupied.contains(*entry)) {
      work.drop("download_folder", *entry);
      continue;
    }
    if (!is_folder(*entry)) work.keep(*entry, unknown_store_file);
    occupied.insert(entry->parent_path());
  }
}

}  // namespace

bool clean_downloads(CleanupWork& work) {
  ReceiptGroups groups;
  // A receipt that cannot be explained may own any of the files, and be explained later.
  const bool explained = work.consider(work.child("download-intents"),
                                       [&] { groups = read_receipt_groups(work.directory()); });
  if (!explained) return false;
  for (const auto& group : groups)
    work.consider(work.child(download_receipt_path(group.first)),
                  [&] { clean_group(work, group.second); });
  clean_unpacked(work);
  work.consider(work.child("downloads"), [&] { clean_other_downloads(work); });
  return true;
}

}  // namespace tavro
