#pragma once

#include <filesystem>
#include <functional>
#include <string_view>

namespace tavro {

struct SnapshotManifest;

using TreeVisitor =
    std::function<void(const std::filesystem::directory_entry& entry, std::string_view relative)>;

/// Calls `visit` for each entry below the directory `root`, parents before children, without
/// following links. `relative` is the entry's path below `root`, valid during the call. The entry
/// beyond `max_entries` is `size_limit` with the message given.
void walk_tree(const std::filesystem::path& root, unsigned long max_entries,
               std::string_view too_many, const TreeVisitor& visit);

/// The total length of the regular files below `root`; 0 when nothing stands there. Changes
/// nothing. Throws `unsafe_path` for a root that is no plain directory, an unportable name, a link
/// or a special file; `size_limit` for more than `max_entries` entries or a sum beyond 64 bits.
unsigned long long tree_bytes(const std::filesystem::path& root, unsigned long max_entries);

/// Removes a directory that the system made, and syncs its parent; nothing at `root` is fine.
/// The whole tree (at most 250000 entries) is proved to hold only directories and regular files
/// before anything is removed: `unsafe_path`, `size_limit`. A removal that fails half-way surfaces
/// as `std::filesystem::filesystem_error`; calling again continues it.
void remove_plain_tree(const std::filesystem::path& root);

/// Removes whatever stands at `path`, recursively and without following links. Best effort: no
/// sync, no failure raised. True when nothing failed.
bool remove_path_quietly(const std::filesystem::path& path) noexcept;

/// Proves that `retire_snapshot_files` can run, and removes nothing. Throws `unsafe_path` when
/// `root` is no ordinary directory, or a declared path became a link or special file.
void validate_snapshot_retirement(const SnapshotManifest& manifest,
                                  const std::filesystem::path& root);

/// Removes exactly the files that the manifest declares and the directories that this leaves empty;
/// everything else below `root` stays. A file's content is not looked at: its name and its being a
/// regular file prove ownership. Changed directories are synced once each, after all removals.
///
/// True if `root` remains because it holds something else, false if it is gone or never existed.
/// `tick`, when set, runs before each file and may throw: files removed so far stay removed and
/// nothing is synced. After any failure a further call completes the work.
/// Throws `unsafe_path` (a managed path changed; it was preserved), `file_remove`, `file_sync`.
bool retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& tick = {});

}  // namespace tavro
