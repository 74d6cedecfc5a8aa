#include "platform/files/safe_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/relative_path.h"
#include "platform/files/folder_access.h"
#include "platform/files/private_storage.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr int max_system_links = 16;

void refuse_link(const fs::path& path) {
  require(type_at(path) != fs::file_type::symlink, "unsafe_path",
          [&] { return "Managed path contains a symbolic link: " + path_utf8(path); });
}

/// A link that no ordinary user can have planted.
bool is_system_link(const fs::path& path, const struct stat& node) {
  if (!S_ISLNK(node.st_mode) || node.st_uid != 0) return false;
  const auto holder = posix_files::node_at(path.parent_path());
  return holder && S_ISDIR(holder->st_mode) && holder->st_uid == 0 &&
         (holder->st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

fs::path read_system_link(const fs::path& path) {
  std::array<char, 4095> target;
  const ssize_t size =
      retried([&] { return ::readlink(path.c_str(), target.data(), target.size()); });
  require(size > 0, "unsafe_path", "Cannot read a system link");
  return std::string(target.data(), static_cast<std::size_t>(size));
}

/// One walk down the path. True when it met no system link: `path` is then the result. Otherwise
/// `path` leads through the first one's target, and is walked again.
bool walk_system_links(fs::path& path, int& links) {
  const fs::path rest = path.relative_path();
  fs::path result = path.root_path();
  for (auto component = rest.begin(); component != rest.end(); ++component) {
    const fs::path candidate = result / *component;
    const auto node = posix_files::node_at(candidate);
    if (!node) return true;
    if (!is_system_link(candidate, *node)) {
      result = candidate;
      continue;
    }
    require(++links <= max_system_links, "unsafe_path", "Too many system links in a path");
    // An absolute target takes the place of all that stands before it.
    result /= read_system_link(candidate);
    while (++component != rest.end()) result /= *component;
    path = result.lexically_normal();
    return false;
  }
  return true;
}

}  // namespace

fs::path safe_join(const fs::path& root, std::string_view relative, bool portable) {
  validate_relative_path(relative, portable);
  fs::path joined = root;
  for (std::size_t begin = 0; begin <= relative.size();) {
    const std::size_t end = std::min(relative.find('/', begin), relative.size());
    joined /= relative.substr(begin, end - begin);
    refuse_link(joined);
    begin = end + 1;
  }
  return joined;
}

void require_unlinked(const fs::path& path) {
  fs::path walked = path.root_path();
  for (const auto& name : path.relative_path()) {
    walked /= name;
    refuse_link(walked);
  }
}

void require_path_room(const fs::path& root, const fs::path& directory,
                       unsigned long longest_relative) {
  const std::size_t bound = host::longest_path();
  if (bound == 0) return;
  const std::size_t taken = directory.native().size() + 1;
  require(taken <= bound && longest_relative <= bound - taken, "size_limit", [&] {
    return "The path of " + path_utf8(root) +
           " leaves no room for the files of this build; choose a folder with a shorter path";
  });
}

fs::path resolve_system_links(const fs::path& path) {
  fs::path resolved = fs::absolute(path).lexically_normal();
  int links = 0;
  while (!walk_system_links(resolved, links)) {
  }
  return resolved;
}

bool bears_name(const fs::path& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() != fs::file_type::not_found;
}

}  // namespace tavro
