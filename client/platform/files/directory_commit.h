#pragma once

#include <filesystem>
#include <functional>

namespace tavro {

/// The operations that move whole private trees. Each compares identities (device and inode) before
/// and after, so that a path swapped meanwhile is detected and not used. None takes a lock: callers
/// that exclude each other hold one. Paths have at most 4096 bytes. "Private" is as `posix_files`
/// defines it; its `permissions` failures pass through.

/// Creates a private directory that must not exist yet, in existing ordinary parents, which are
/// walked without following any link but those of the operating system. Nothing is synced. A
/// failure after the directory was made leaves it, empty, where it is.
///
/// Throws `unsafe_path` (form of the path, missing or linked parents), `size_limit` (more than 128
/// parents), `native_install_commit` (the name is taken, or led elsewhere afterwards),
/// `permissions`.
void private_directory_new(const std::filesystem::path& path);

/// Moves a private file (mode 0600, one link) or directory (0700) to a new name on its volume and
/// never replaces anything, in one step or not at all. `before_commit`, when set, runs while the
/// identity of the source is pinned: the place for a recovery record. Nothing is synced: the caller
/// syncs both parents, and decides what a crash before that means.
///
/// Throws `unsafe_path`, `native_install_commit`, `already_installed` (the destination exists),
/// `permissions`; both paths are then as they were.
void commit_private_path_new(const std::filesystem::path& source,
                             const std::filesystem::path& destination,
                             const std::function<void()>& before_commit);

/// Exchanges two private directories of one volume, whose parents are private too, in one step and
/// durably. No link may stand anywhere in the paths. `before_exchange`, when set, runs while all
/// four identities are pinned: the place for a recovery record.
///
/// Throws `unsafe_path`, `native_install_commit`, `permissions` with nothing changed. Two failures
/// come after the exchange, which must not be tried again: `file_sync`, and `native_install_commit`
/// with "... committed with changed ownership ...", to be recovered from the identities recorded.
void exchange_private_directories(const std::filesystem::path& left,
                                  const std::filesystem::path& right,
                                  const std::function<void()>& before_exchange);

}  // namespace tavro
