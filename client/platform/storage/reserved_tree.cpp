#include "platform/storage/reserved_tree.h"

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <algorithm>
#include <unordered_set>

#include "documents/manifest.h"
#include "domain/error.h"
#include "platform/files/directory_commit.h"
#include "platform/files/durable_files.h"
#include "platform/files/held_directory.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"
#include "platform/storage/storage_plan.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char changed[] = "allocation_changed";
constexpr unsigned long max_entries = 250000;

void require_identity(const fs::path& root, const TreeIdentity& identity,
                      std::string_view message) {
  require(inspect_storage_directory(root) == identity, changed, message);
}

fs::path absolute_root(const fs::path& root) {
  std::error_code ignored;
  const fs::path absolute = fs::absolute(root, ignored);
  return absolute.has_filename() ? absolute : absolute.parent_path();
}

void ask(const Progress& progress, unsigned long long done, unsigned long long total) {
  require(!progress || progress(done, total), "cancelled",
          "Storage preparation cancelled before download");
}

/// File by file the lack would show only after the files before it have taken theirs. So it does on
/// a volume that tells no capacity, as one in memory without a bound.
void require_room(const SnapshotManifest& manifest, const fs::path& root) {
  const StorageVolume volume = inspect_storage_volume(root);
  if (volume.capacity_bytes == 0) return;
  const json budget = plan_install_storage(manifest, volume, true, 0, false).at("volume");
  const auto fits = [&](const char* wanted, const char* available) {
    return budget.at(available).is_null() || budget.at(wanted) <= budget.at(available);
  };
  require(
      fits("staging_bytes", "available_bytes") && fits("staging_file_entries", "available_inodes"),
      "insufficient_space", "Cannot reserve file data; free space or choose other game storage");
}

using Directories = std::unordered_set<std::string_view>;

Directories implied_directories(const SnapshotManifest& manifest) {
  Directories directories;
  for (const auto& [path, file] : manifest.files) {
    const std::string_view text = path;
    for (auto end = text.find('/'); end != text.npos; end = text.find('/', end + 1)) {
      directories.insert(text.substr(0, end));
      require(directories.size() <= max_entries, "size_limit",
              "Prepared directory inventory exceeds its bound");
    }
  }
  return directories;
}

bool is_reserved_file(const SnapshotManifest& manifest, const struct stat& node,
                      std::string_view relative) {
  if (!S_ISREG(node.st_mode) || node.st_nlink != 1) return false;
  // A kill during the removal of one of these files leaves it so.
  if (posix_files::is_set_aside(relative.substr(relative.rfind('/') + 1), node)) return true;
  const auto declared = manifest.files.find(std::string(relative));
  return declared != manifest.files.end() &&
         static_cast<unsigned long long>(node.st_size) <= declared->second.length;
}

void require_only_reserved(const SnapshotManifest& manifest, const fs::path& root) {
  const Directories directories = implied_directories(manifest);
  walk_tree(root, max_entries, "Prepared cleanup entry count exceeds its bound",
            [&](const auto&, auto relative) {
              const auto node = posix_files::node_at(safe_join(root, relative, true));
              if (node && S_ISDIR(node->st_mode))
                require(directories.contains(relative), "unexpected_file",
                        "Prepared cleanup preserves unmanaged directories");
              else
                require(node && is_reserved_file(manifest, *node, relative), "unexpected_file",
                        "Prepared cleanup preserves unmanaged, linked or oversized files");
            });
}

}  // namespace

ReservedTree::ReservedTree(const SnapshotManifest& manifest, const fs::path& new_root,
                           const Progress& progress,
                           const std::function<void(const TreeIdentity&)>& on_recorded)
    : root(absolute_root(new_root)) {
  make_root(on_recorded);
  require_room(manifest, root);
  fs::path made;
  for (const auto& [path, declared] : manifest.files) {
    ask(progress, requested_bytes, manifest.expanded_length);
    const fs::path target = safe_join(root, path, true);
    // Proved private when it is new, a directory stays so in a private tree.
    if (target.parent_path() != made) private_directory(made = target.parent_path());
    keep(path, AllocatedFile(target, declared.length, {}).retain_reservation());
  }
  ask(progress, requested_bytes, manifest.expanded_length);
  require_identity(root, identity, "Prepared directory changed during reservation");
}

void ReservedTree::make_root(const std::function<void(const TreeIdentity&)>& on_recorded) {
  std::error_code ignored;
  const fs::path parent = root.parent_path();
  require(
      fs::symlink_status(parent, ignored).type() == fs::file_type::directory && !bears_name(root),
      "staging_exists", "A fresh reservation directory is required");
  private_directory_new(root);
  identity = inspect_storage_directory(root);
  if (!on_recorded) return;
  // A record must not name a directory that a crash can take back.
  sync_directory(root);
  sync_directory(parent);
  on_recorded(identity);
  require_identity(root, identity, "Prepared root changed while recording ownership");
}

void ReservedTree::keep(const std::string& path, FileReservation record) {
  requested_bytes = storage_sum::add(requested_bytes, record.size);
  if (record.allocated) reserved_bytes = storage_sum::add(reserved_bytes, record.size);
  files.insert_or_assign(path, std::move(record));
  ++file_count;
}

const FileReservation* ReservedTree::find(std::string_view path, unsigned long long length) const {
  const auto found = files.find(path);
  return found != files.end() && found->second.size == length ? &found->second : nullptr;
}

const FileReservation& ReservedTree::file(std::string_view path, unsigned long long length) const {
  const FileReservation* found = find(path, length);
  require(found != nullptr, changed, "File differs from the prepared inventory");
  return *found;
}

void ReservedTree::validate(const SnapshotManifest& manifest, const fs::path& given) const {
  const auto is_prepared = [&](const auto& declared) {
    return find(declared.first, declared.second.length) != nullptr;
  };
  require(root == absolute_root(given) && file_count == manifest.files.size() &&
              requested_bytes == manifest.expanded_length &&
              inspect_storage_directory(root) == identity &&
              std::all_of(manifest.files.begin(), manifest.files.end(), is_prepared),
          changed, "Prepared tree differs from the requested snapshot");
}

json ReservedTree::summary() const {
  const bool certain = std::all_of(files.begin(), files.end(),
                                   [](const auto& entry) { return entry.second.allocated; });
  return {{"requested_bytes", requested_bytes},
          {"reserved_bytes", reserved_bytes},
          {"file_count", file_count},
          {"data_reserved", certain}};
}

bool ready_tree(const SnapshotManifest& manifest, const fs::path& root,
                const TreeIdentity& identity) {
  require(inspect_storage_directory(root.parent_path())[0] == identity[0], changed,
          "Prepared storage volume changed");
  if (!bears_name(root)) return false;
  require_identity(root, identity, "Prepared directory identity changed; preserve its replacement");
  require_only_reserved(manifest, root);
  require_identity(root, identity, "Prepared directory changed during cleanup validation");
  return true;
}

void dispose_install_root(const fs::path& root, const TreeIdentity& identity, bool present) {
  if (present) {
    require_identity(root, identity, "Prepared directory changed before disposal");
    require(remove_identified_tree(root, identity), changed,
            "Prepared directory changed before disposal");
  }
  sync_directory(root.parent_path());
}

}  // namespace tavro
