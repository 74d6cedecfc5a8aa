#pragma once

#include <filesystem>
#include <functional>

namespace tavro {

struct SnapshotManifest;

/// Proves that `retire_snapshot_files` can run, and removes nothing. Throws `unsafe_path` when
/// `root` is no ordinary directory, or a declared path became a link or special file.
void validate_snapshot_retirement(const SnapshotManifest& manifest,
                                  const std::filesystem::path& root);

/// Removes exactly the files that the manifest declares and the directories that this leaves empty;
/// everything else below `root` stays. Each is reached by open directories, so that a folder that
/// is exchanged meanwhile leads nowhere else. A file's content is not looked at: its name and its
/// being a regular file prove ownership. Changed directories are synced once each, after all
/// removals.
///
/// True if `root` remains because it holds something else, false if it is gone or never existed.
/// `tick`, when set, runs before each file and may throw: files removed so far stay removed and
/// nothing is synced. After any failure a further call completes the work.
/// Throws `unsafe_path` (a managed path changed; it was preserved), `file_remove`, `file_sync`, and
/// `std::filesystem::filesystem_error` for what cannot be looked at.
bool retire_snapshot_files(const SnapshotManifest& manifest, const std::filesystem::path& root,
                           const std::function<void()>& tick = {});

}  // namespace tavro
