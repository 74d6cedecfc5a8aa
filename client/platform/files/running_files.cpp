#include "platform/files/running_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/directory_chain.h"
#include "platform/files/held_directory.h"
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

/// What the directory holds, sorted.
std::vector<std::string> names_in(int directory, const fs::path& path) {
  std::vector<std::string> names;
  const int error = posix_files::for_each_entry(
      directory, [&](const char* name, unsigned char) { names.emplace_back(name); });
  require(error == 0, "file_remove",
          [&] { return "Cannot remove " + path_utf8(path) + posix_files::because(error); });
  std::sort(names.begin(), names.end());
  return names;
}

/// Removes the entry of `folder` that is shown as `path`.
void remove_tree_in(int folder, const fs::path& path) {
  const std::string name = path.filename().native();
  const UniqueFd below(retried([&] {
    return system_calls().openat(folder, name.c_str(), posix_files::walk_flags, mode_t{});
  }));
  int error = below ? 0 : errno;
  if (below) {
    for (const auto& entry : names_in(below.get(), path)) remove_tree_in(below.get(), path / entry);
    error = posix_files::remove_empty_in(folder, name.c_str());
  } else if (error == ENOTDIR || error == ELOOP || error == ENOENT) {
    error = posix_files::remove_in(folder, name.c_str());
  }
  require(error == 0, "file_remove",
          [&] { return "Cannot remove " + path_utf8(path) + posix_files::because(error); });
}

}  // namespace

void remove_tree_or_trash(const fs::path& path, const fs::path&, std::vector<fs::path>&) {
  const auto held = posix_files::hold_name(path, posix_files::ParentLink::refused);
  require(static_cast<bool>(held.parent), "file_remove",
          [&path] { return "Cannot remove " + path_utf8(path) + posix_files::because(errno); });
  remove_tree_in(held.parent.get(), path);
}

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
