#include "cleanup/download_cleanup.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cleanup/cleanup_work.h"
#include "documents/launcher_contract.h"
#include "domain/error.h"
#include "domain/json_fields.h"
#include "download/download_receipt.h"
#include "installation/data_folder.h"
#include "launcher/launcher_download.h"
#include "platform/files/managed_tree.h"
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

bool verifies(const fs::path& path, const json& description) {
  try {
    verify_target_file(path, description, {});
    return true;
  } catch (const Error&) {
    return false;
  }
}

void drop_verified(CleanupWork& work, const std::string& target, const json& description) {
  const fs::path path = download(work, target);
  if (!path.empty() && verifies(path, description)) work.drop("download", path);
}

/// The receipt goes last: until then it explains the others.
void clean_group(CleanupWork& work, const json& group) {
  const json& receipt = group.at("receipt");
  if (!receipt.is_null()) {
    const auto& temporary = text_member(receipt, "temporary");
    const fs::path partial = download(work, temporary);
    if (!partial.empty()) work.drop("download", partial);
    for (const json& file : group.at("resume_files"))
      work.drop("download_record", work.child("downloads/" + text_member(file, "name")));
    drop_verified(work, text_member(receipt, "target"), receipt.at("authorization"));
    const fs::path place = work.child("downloads/" + temporary);
    if (stands(place) && !work.took(place))
      return work.keep(work.child(download_receipt_path(text_member(group, "nonce"))),
                       "What stands at its partial file's place is no file");
  }
  for (const json& file : group.at("files"))
    work.drop("download_record", work.child("download-intents/" + text_member(file, "name")));
}

/// Downloads whose receipts were retired are explained by a stored descriptor.
void clean_unpacked(CleanupWork& work) {
  const auto described = [](unsigned long long length, const std::string& sha256) {
    return json{{"length", length}, {"hashes", {{"sha256", sha256}}}};
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

/// What is left has no owner; the folders that only downloads made go once they are empty.
void clean_other_downloads(CleanupWork& work) {
  std::vector<fs::path> entries;
  walk_tree(work.child("downloads"), cleanup_tree_entries, "The store holds too many downloads",
            [&](const fs::directory_entry& entry, std::string_view) { entries.push_back(entry); });
  std::set<fs::path> occupied;
  // From the end, since a folder comes before what it holds.
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    if (work.took(*entry)) continue;
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
  std::map<std::string, json> groups;
  // A receipt that cannot be explained may own any of the files, and be explained later.
  const bool explained = work.consider(work.child("download-intents"), [&] {
    groups = launcher_download_receipts(work.directory());
  });
  if (!explained) return false;
  for (const auto& group : groups)
    work.consider(work.child(download_receipt_path(group.first)),
                  [&] { clean_group(work, group.second); });
  clean_unpacked(work);
  work.consider(work.child("downloads"), [&] { clean_other_downloads(work); });
  return true;
}

}  // namespace tavro
