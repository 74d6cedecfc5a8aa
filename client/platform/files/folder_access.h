#pragma once

#include <cstddef>
#include <filesystem>
#include <string_view>
#include <vector>

#include "domain/error.h"

/// Looking into folders that may be closed to this user: every failure names the folder, says why,
/// and what the user can do about it.
namespace tavro {

/// Throws what keeps a folder from being read or entered, an `errno` number: `permissions` when
/// it is closed to this user, else `file_read`.
[[noreturn]] void refuse_folder(const std::filesystem::path& folder, int error);

/// What stands at a path, its final link not followed; `not_found` also for a path that leads
/// through what is no folder. Throws as `refuse_folder` for the folder that is closed to a look.
std::filesystem::file_type type_at(const std::filesystem::path& path);

/// The paths of all that a folder holds, in no order. A link in its place is followed. The entry
/// beyond `max_entries` is the failure given; else throws as `refuse_folder`.
std::vector<std::filesystem::path> folder_entries(const std::filesystem::path& folder,
                                                  std::size_t max_entries,
                                                  std::string_view too_many,
                                                  std::string_view code = "size_limit");

/// Whether this failure to read or prove the file says nothing about it, and may be gone the next
/// time. A file that this user may not read never will be read.
bool says_nothing(const Error& error, const std::filesystem::path& file);

}  // namespace tavro
