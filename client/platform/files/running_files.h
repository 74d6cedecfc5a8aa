#pragma once

#include <filesystem>
#include <vector>

/// File operations for running programs, whose files not every system can remove or replace.
namespace tavro::native_files {

/// `rename`, which replaces what stands at `to`. Throws `file_write`. Syncs nothing.
void rename_replace(const std::filesystem::path& from, const std::filesystem::path& to);

/// Removes one entry: a file, a link itself, or an empty directory; nothing there is fine. True
/// when the path is gone; false would mean that it was only set aside in `trash_directory`, which
/// never happens where a running file can be removed. Throws `file_remove`.
bool remove_or_trash(const std::filesystem::path& path,
                     const std::filesystem::path& trash_directory);

/// Removes an entry with all that it holds, and tells what was only set aside. Each level goes
/// through the one above it, so that nothing behind a link is touched, whatever is exchanged
/// meanwhile. Throws `file_remove` for the first entry that stays.
void remove_tree_or_trash(const std::filesystem::path& path,
                          const std::filesystem::path& trash_directory,
                          std::vector<std::filesystem::path>& deferred);

/// Removes one entry as `remove_or_trash`, but best effort. True when the path is gone.
bool remove_quietly(const std::filesystem::path& path) noexcept;

/// Removes the path recursively, once the process no longer needs it: at once where a running file
/// can be removed. Every failure is ignored.
void remove_after_exit(const std::filesystem::path& path) noexcept;

/// The folder for short-lived files of work on `path`: the system's temporary folder here. Throws
/// `std::filesystem::filesystem_error`.
std::filesystem::path temporary_directory(const std::filesystem::path& path);

}  // namespace tavro::native_files
