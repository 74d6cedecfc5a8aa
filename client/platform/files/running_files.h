#pragma once

#include <filesystem>

/// File operations for running programs, whose files not every system can remove or replace.
namespace tavro::native_files {

/// `rename`, which replaces what stands at `to`. Throws `file_write`. Syncs nothing.
void rename_replace(const std::filesystem::path& from, const std::filesystem::path& to);

/// Removes one entry: a file, a link itself, or an empty directory; nothing there is fine. True
/// when the path is gone; false would mean that it was only set aside in `trash_directory`, which
/// never happens where a running file can be removed. Throws `file_remove`.
bool remove_or_trash(const std::filesystem::path& path,
                     const std::filesystem::path& trash_directory);

/// Removes one entry as `remove_or_trash`, but best effort. True when the path is gone.
bool remove_quietly(const std::filesystem::path& path) noexcept;

/// Removes the path recursively, once the process no longer needs it: at once where a running file
/// can be removed. Every failure is ignored.
void remove_after_exit(const std::filesystem::path& path) noexcept;

/// The folder for short-lived files of work on `path`: the system's temporary folder here. Throws
/// `std::filesystem::filesystem_error`.
std::filesystem::path temporary_directory(const std::filesystem::path& path);

}  // namespace tavro::native_files
