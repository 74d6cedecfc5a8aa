#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "domain/unique_fd.h"

/// What the walks have in common that go down to a directory one descriptor at a time, so that
/// nothing that happens to its path meanwhile can lead them elsewhere.
namespace tavro::posix_files {

/// How each directory on the way is opened: a link in its place fails.
inline constexpr int walk_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Absolute, lexically normal and without a separator at the end; empty for a path that is empty or
/// holds a NUL byte.
std::filesystem::path plain_absolute(const std::filesystem::path& path);

/// The same with the links of the operating system resolved; see `resolve_system_links`.
std::filesystem::path storage_target(const std::filesystem::path& path);

/// What a name in an open directory shows, its link not followed; empty on failure.
std::optional<struct stat> node_in(int directory, const char* name);

/// One step down.
struct ChainStep {
  /// Empty, with `errno` set, when the name leads to no ordinary directory.
  UniqueFd directory;
  /// Whether it can be read, and its names synced.
  bool readable = true;
};

/// Enters `name` below `parent`. A folder above the last one is entered also when it may be passed
/// but not read, as one is that holds everybody's homes.
ChainStep enter_directory(int parent, const char* name, bool last);

/// A whole walk over existing directories, of at most `max_ancestry` below the root.
struct Ancestry {
  enum class End { reached, root_unopened, beyond_bound, not_ordinary };
  End end;
  /// Empty unless the end was reached.
  UniqueFd directory;
};
Ancestry walk_ancestry(const std::filesystem::path& directory);

}  // namespace tavro::posix_files
