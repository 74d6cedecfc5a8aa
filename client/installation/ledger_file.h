#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

#include "installation/shortcut_ledger.h"
#include "platform/files/file_locks.h"

/// The ledger on the disk, for the operations on it: see `shortcut_ledger.h` for its contract.
namespace tavro::ledger_file {

using Entries = std::vector<OwnedShortcut>;

inline constexpr std::size_t max_shortcuts = 128;
inline constexpr std::size_t ledger_bytes = 262144;
inline constexpr std::size_t shortcut_bytes = 65536;

std::filesystem::path path_in(const std::filesystem::path& root);

/// Waits for the lock of the ledger, and takes away what writes that were cut off have left.
FileLock lock(const std::filesystem::path& root);

Entries read(const std::filesystem::path& root);

/// Throws `size_limit` for a list that could never be read again, and as `atomic_write`.
void write(const std::filesystem::path& root, const Entries& entries);

/// Whether the entry's file is a regular file with the recorded bytes. Throws as `read_file`.
bool unchanged(const OwnedShortcut& entry);

/// Whether the file had the recorded bytes and was removed; one that took its name meanwhile stays.
/// Throws as `unchanged`, and `file_remove`.
bool remove_unchanged(const OwnedShortcut& entry);

/// Whether a regular file at the path has exactly these bytes; false also when nobody can tell.
bool holds(const std::filesystem::path& path, std::string_view text) noexcept;

/// The record of a shortcut with this text.
OwnedShortcut entry_of(const DesktopShortcut& shortcut, const std::filesystem::path& path,
                       std::string_view text);

/// Takes away what a creation that was cut off has left beside this path. Throws as `children` and
/// `remove_or_trash`.
void remove_leftovers(const std::filesystem::path& path);

}  // namespace tavro::ledger_file
