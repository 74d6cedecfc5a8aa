#include "platform/files/running_files.h"

#include <fcntl.h>

#include <cerrno>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro::native_files {

namespace fs = std::filesystem;

namespace {

/// A file, a link itself, or an empty directory.
bool is_removed(const fs::path& path) noexcept {
  const auto gone = [&](int flags) {
    const auto remove = [&] { return system_calls().unlinkat(AT_FDCWD, path.c_str(), flags); };
    return retried(remove) == 0 || errno == ENOENT;
  };
  // A directory answers EISDIR here and EPERM on other systems; nothing else is tried twice.
  return gone(0) || ((errno == EISDIR || errno == EPERM) && gone(AT_REMOVEDIR));
}

}  // namespace

void rename_replace(const fs::path& from, const fs::path& to) {
  const bool moved = retried([&] { return system_calls().rename(from.c_str(), to.c_str()); }) == 0;
  require(moved, "file_write", [&from, error = errno] {
    return "Cannot move " + path_utf8(from) + " into place" + posix_files::because(error);
  });
}

bool remove_or_trash(const fs::path& path, const fs::path&) {
  require(is_removed(path), "file_remove",
          [&path] { return "Cannot remove " + path_utf8(path) + posix_files::because(errno); });
  return true;
}

bool remove_quietly(const fs::path& path) noexcept { return is_removed(path); }

void remove_after_exit(const fs::path& path) noexcept { remove_path_quietly(path); }

fs::path temporary_directory(const fs::path&) { return fs::temp_directory_path(); }

}  // namespace tavro::native_files
