#pragma once

#include <filesystem>
#include <string>

#include "installation/bootstrap_paths.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// The record of a waiting update, as bytes. Throws `unsafe_path` for anything but an ordinary file
/// of this user, and as `read_file`; the sentence names the file and what to do about it.
std::string read_waiting_update(const BootstrapPaths& paths);

/// Throws `file_write` where the installation lies on a volume that is read-only now.
void require_writable_volume(const BootstrapPaths& paths);

/// A lock of the installation, under the rules of `NativeFileLock`; a failure other than `busy`
/// names the file and what to do about it.
NativeFileLock installation_lock(const std::filesystem::path& path, NativeLockSharing sharing,
                                 LockMode mode);

/// What keeps the waiting update from the next start, in a sentence for the user that names the
/// file and what to do about it; empty when no update waits, or nothing is known to. Reads the
/// record and looks at the files' lengths; takes no lock and never throws.
std::string waiting_update_obstacle(const BootstrapPaths& paths) noexcept;

/// Removes what is no update any more: the staged tree and the replaced files. Only without a
/// record, and under the update's lock. What stays leaves the marker `old_files`, by which a later
/// call goes on.
void remove_update_leftovers(const BootstrapPaths& paths);

/// Leaves that marker before a record goes, so that a run that ends in between is known to have
/// left something. Best effort: without it the next staging removes the same.
void mark_update_leftovers(const BootstrapPaths& paths) noexcept;

}  // namespace tavro
