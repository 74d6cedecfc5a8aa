#include "platform/files/directory_chain.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "domain/error.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro::posix_files {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuse(std::string_view code, std::string_view before, std::string_view after) {
  fail(code, host::naming_system(before, after));
}

fs::path without_end_separator(const fs::path& path) {
  return path.has_filename() ? path : path.parent_path();
}

UniqueFd open_entry(int directory, const char* name, int flags) {
  return UniqueFd(retried([&] { return system_calls().openat(directory, name, flags, mode_t{}); }));
}

fs::path resolved_target(const fs::path& path) {
  fs::path target = storage_target(path);
  if (!bounded_path(target) || target == target.root_path())
    refuse("unsafe_path", "", " private directory needs a bounded path below a root");
  for (const auto& component : path)
    if (component == "..") refuse("unsafe_path", "", " private directory cannot traverse parents");
  return target;
}

/// The way from the root to a private directory.
class DirectoryWalk {
 public:
  explicit DirectoryWalk(const fs::path& target)
      : target_(target), current_(posix_files::open(target.root_path(), walk_flags)) {
    if (!current_) refuse("unsafe_path", "Cannot anchor ", " directory ancestry");
  }

  void enter(const char* name, bool last) {
    if (++depth_ > max_ancestry) refuse("size_limit", "", " directory ancestry exceeds its bound");
    auto [next, readable] = enter_directory(current_.get(), name, last);
    bool created = false;
    const bool missing = !next && errno == ENOENT;
    if (missing) {
      created = create_entry(name);
      next = open_entry(current_.get(), name, walk_flags);
    }
    if (!next) refuse_because("unsafe_path", "", " directory ancestry is missing or linked");
    const struct stat node = entered(next.get(), name);
    if (created)
      keep_new(next.get());
    else if (last)
      require_own(next.get(), node);
    // Who was faster may not have come to it yet.
    if (missing && !created) synchronize();
    current_ = std::move(next);
    readable_ = readable;
  }

  void require_at(const fs::path& target) const {
    const auto held = node_of(current_.get());
    const auto named = node_at(target);
    if (!held || !named || !same_node(*held, *named))
      refuse("unsafe_path", "", " private directory path changed");
  }

 private:
  /// False when another process was faster: what it made is proved as what stood there before.
  bool create_entry(const char* name) const {
    // Without a readable parent the new name could not be synced, and the next run would take it
    // for an old one.
    if (!readable_) errno = EACCES;
    const bool made = readable_ && retried([&] {
                                     return system_calls().mkdirat(current_.get(), name, S_IRWXU);
                                   }) == 0;
    if (!made && errno != EEXIST)
      refuse_because("permissions", "Cannot reserve a new ", " private directory");
    return made;
  }

  /// With the component that the walk has come to, and `errno`.
  [[noreturn]] void refuse_because(std::string_view code, std::string_view before,
                                   std::string_view after) const {
    const int error = errno;
    fs::path here = target_.root_path();
    const fs::path below = target_.relative_path();
    for (auto [name, left] = std::pair(below.begin(), depth_); left > 0; ++name, --left)
      here /= *name;
    fail(code, host::naming_system(before, after) + failed_because(here, error));
  }

  struct stat entered(int descriptor, const char* name) const {
    const auto held = node_of(descriptor);
    const auto named = node_in(current_.get(), name);
    if (!held || !named || !S_ISDIR(held->st_mode) || !same_node(*held, *named))
      refuse("unsafe_path", "", " directory ancestry changed");
    return *held;
  }

  // The name becomes durable only after the privacy, and before anything is created below it.
  void keep_new(int descriptor) const {
    secure_new_private(descriptor, true);
    synchronize();
  }

  void synchronize() const {
    if (sync(current_.get()) != 0)
      refuse("file_sync", "Cannot synchronize new ", " directory ownership");
  }

  void require_own(int descriptor, const struct stat& node) const {
    if (node.st_uid == ::geteuid() && (node.st_mode & mode_bits) != S_IRWXU) {
      // Narrowing the mode would quietly take from an access list what it grants.
      require_private_acl(descriptor, true, target_);
      if (retried([&] { return system_calls().fchmod(descriptor, S_IRWXU); }) != 0)
        refuse_because("permissions", "Cannot restrict ", " directory permissions");
    }
    private_node(descriptor, true, target_);
  }

  const fs::path& target_;
  UniqueFd current_;
  bool readable_ = true;
  int depth_ = 0;
};

}  // namespace

fs::path plain_absolute(const fs::path& path) {
  const std::string& given = path.native();
  if (given.empty() || given.find('\0') != std::string::npos) return {};
  return without_end_separator(fs::absolute(path).lexically_normal());
}

fs::path storage_target(const fs::path& path) {
  const fs::path absolute = plain_absolute(path);
  return absolute.empty() ? absolute : without_end_separator(resolve_system_links(absolute));
}

std::optional<struct stat> node_in(int directory, const char* name) {
  struct stat node {};
  if (retried([&] { return ::fstatat(directory, name, &node, AT_SYMLINK_NOFOLLOW); }) != 0)
    return std::nullopt;
  return node;
}

ChainStep enter_directory(int parent, const char* name, bool last) {
  UniqueFd next = open_entry(parent, name, walk_flags);
  const bool unreadable = !next && errno == EACCES && !last && host::search_only() != 0;
  if (unreadable) next = open_entry(parent, name, walk_flags | host::search_only());
  return {std::move(next), !unreadable};
}

Ancestry walk_ancestry(const fs::path& directory) {
  UniqueFd current = posix_files::open(directory.root_path(), walk_flags);
  if (!current) return {Ancestry::End::root_unopened, {}};
  const fs::path below = directory.relative_path();
  int depth = 0;
  for (auto name = below.begin(); name != below.end();) {
    if (++depth > max_ancestry) return {Ancestry::End::beyond_bound, {}};
    const auto next = std::next(name);
    current = enter_directory(current.get(), name->c_str(), next == below.end()).directory;
    if (!current) return {Ancestry::End::not_ordinary, {}};
    name = next;
  }
  return {Ancestry::End::reached, std::move(current)};
}

void private_directory(const fs::path& path) {
  const fs::path target = resolved_target(path);
  const fs::path below = target.relative_path();
  DirectoryWalk walk(target);
  for (auto component = below.begin(); component != below.end();) {
    const fs::path& name = *component;
    const auto next = std::next(component);
    walk.enter(name.c_str(), next == below.end());
    component = next;
  }
  walk.require_at(target);
}

}  // namespace tavro::posix_files
