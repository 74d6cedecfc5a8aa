#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "domain/progress.h"
#include "platform/storage/allocated_file.h"

namespace tavro {

struct SnapshotManifest;

/// Device and inode of a directory, as `inspect_storage_directory` answers them: by these a record
/// knows a tree again, after a restart and after its rename.
using TreeIdentity = std::array<unsigned long long, 2>;

/// A private staging tree in which every file of a snapshot exists at its full size before the
/// first byte arrives, so that a lack of space shows up at once. `extract_snapshot` fills it.
struct ReservedTree {
  /// Builds the tree at `root`, which must not exist, in an existing ordinary parent.
  ///
  /// `on_recorded`, when set, gets the identity of the new and still empty directory, whose name is
  /// durable by then, and durably records that it is the caller's. Only then is space looked for: a
  /// volume that cannot hold the whole tree is refused before a byte of it is taken. `progress`,
  /// when set, counts the bytes requested; it is asked before each file and at the end.
  ///
  /// Throws `staging_exists`, `insufficient_space`, `cancelled`, `allocation_changed` (the root was
  /// replaced meanwhile) and what `private_directory_new`, `private_directory`, `AllocatedFile` and
  /// `inspect_storage_volume` throw. Whatever is there by then stays, for the clean-up by the
  /// recorded identity.
  ReservedTree(const SnapshotManifest& manifest, const std::filesystem::path& root,
               const Progress& progress,
               const std::function<void(const TreeIdentity&)>& on_recorded);

  /// The reservation of a file of this length; anything else is `allocation_changed`.
  const FileReservation& file(std::string_view path, unsigned long long length) const;

  /// Proves that this tree stands at `root` and was made for this snapshot: `allocation_changed`,
  /// or `unsafe_path` when no ordinary directory stands there any more. Files are not looked at.
  void validate(const SnapshotManifest& manifest, const std::filesystem::path& root) const;

  /// `requested_bytes`, `reserved_bytes`, `file_count`, and `data_reserved`: whether the space of
  /// every file is certain.
  json summary() const;

  /// Absolute.
  std::filesystem::path root;
  TreeIdentity identity{};
  /// By relative path, one for each file of the snapshot.
  std::map<std::string, FileReservation, std::less<>> files;
  unsigned long long file_count = 0;
  /// Bytes asked for, and how many of them were really allocated.
  unsigned long long requested_bytes = 0;
  unsigned long long reserved_bytes = 0;

 private:
  void make_root(const std::function<void(const TreeIdentity&)>& on_recorded);
  void keep(const std::string& path, FileReservation record);
  const FileReservation* find(std::string_view path, unsigned long long length) const;
};

/// Proves that `root`, if anything stands there, is the tree of this identity and holds nothing but
/// files of the manifest, none of them linked or too long, and the directories that these need. At
/// most 250000 entries. False when nothing stands there.
///
/// Throws `allocation_changed` (another volume or directory), `unexpected_file`, `size_limit`,
/// `unsafe_path` (a link, an unportable name). Nothing is changed: what is not proved is preserved.
bool ready_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                const TreeIdentity& identity);

/// Removes a tree that `ready_tree` found present, unless it was replaced since
/// (`allocation_changed`), and in any case makes the directory above durable. A removal that was
/// cut off is completed by a further proof and call.
void dispose_install_root(const std::filesystem::path& root, const TreeIdentity& identity,
                          bool present);

}  // namespace tavro
