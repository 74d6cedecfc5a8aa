#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "domain/error.h"
#include "platform/files.h"
#include "platform/host.h"
#include "platform/posix_files.h"
#include "platform/system_calls.h"

namespace tavro::posix_files {
namespace {

namespace fs = std::filesystem;

constexpr int walk_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void refuse(std::string_view code, std::string_view before, std::string_view after) {
  fail(code, host::naming_system(before, after));
}

fs::path resolved_target(const fs::path& path) {
  const std::string& given = path.native();
  fs::path target;
  if (!given.empty() && given.find('\0') == std::string::npos)
    target = resolve_system_links(fs::absolute(path).lexically_normal());
  if (!target.has_filename()) target = target.parent_path();
  if (!bounded_path(target) || target == target.root_path())
    refuse("unsafe_path", "", " private directory needs a bounded path below a root");
  for (const auto& component : path)
    if (component == "..") refuse("unsafe_path", "", " private directory cannot traverse parents");
  return target;
}

/// The way from the root to a directory, one descriptor at a time, so that nothing that happens to
/// the path meanwhile can lead the walk elsewhere.
class DirectoryWalk {
 public:
  explicit DirectoryWalk(const fs::path& root) : current_(posix_files::open(root, walk_flags)) {
    if (!current_) refuse("unsafe_path", "Cannot anchor ", " directory ancestry");
  }

  void enter(const char* name, bool last) {
    if (++depth_ > max_ancestry) refuse("size_limit", "", " directory ancestry exceeds its bound");
    UniqueFd next = open_entry(name, walk_flags);
    // A folder above that holds everybody's homes is often passable and yet not readable.
    const bool unreadable = !next && errno == EACCES && !last && host::search_only() != 0;
    if (unreadable) next = open_entry(name, walk_flags | host::search_only());
    const bool created = !next && errno == ENOENT;
    if (created) next = create_entry(name);
    if (!next) refuse("unsafe_path", "", " directory ancestry is missing or linked");
    const struct stat node = entered(next.get(), name);
    if (created)
      keep_new(next.get());
    else if (last)
      require_own(next.get(), node);
    current_ = std::move(next);
    readable_ = !unreadable;
  }

  void require_at(const fs::path& target) const {
    const auto held = node_of(current_.get());
    const auto named = node_at(target);
    if (!held || !named || !same_node(*held, *named))
      refuse("unsafe_path", "", " private directory path changed");
  }

 private:
  UniqueFd open_entry(const char* name, int flags) const {
    return UniqueFd(
        retried([&] { return system_calls().openat(current_.get(), name, flags, mode_t{}); }));
  }

  UniqueFd create_entry(const char* name) const {
    // Without a readable parent the new name could not be synced, and the next run would take it
    // for an old one.
    if (!readable_ ||
        retried([&] { return system_calls().mkdirat(current_.get(), name, S_IRWXU); }) != 0)
      refuse("permissions", "Cannot reserve a new ", " private directory");
    return open_entry(name, walk_flags);
  }

  struct stat entered(int descriptor, const char* name) const {
    const auto held = node_of(descriptor);
    struct stat named {};
    const bool read =
        retried([&] { return ::fstatat(current_.get(), name, &named, AT_SYMLINK_NOFOLLOW); }) == 0;
    if (!held || !read || !S_ISDIR(held->st_mode) || !same_node(*held, named))
      refuse("unsafe_path", "", " directory ancestry changed");
    return *held;
  }

  // The name becomes durable only after the privacy, and before anything is created below it.
  void keep_new(int descriptor) const {
    secure_new_private(descriptor, true);
    if (sync(current_.get()) != 0)
      refuse("file_sync", "Cannot synchronize new ", " directory ownership");
  }

  static void require_own(int descriptor, const struct stat& node) {
    if (node.st_uid == ::geteuid() && (node.st_mode & mode_bits) != S_IRWXU) {
      // Narrowing the mode would quietly take from an access list what it grants.
      require_private_acl(descriptor, true);
      if (retried([&] { return system_calls().fchmod(descriptor, S_IRWXU); }) != 0)
        refuse("permissions", "Cannot restrict ", " directory permissions");
    }
    private_node(descriptor, true);
  }

  UniqueFd current_;
  bool readable_ = true;
  int depth_ = 0;
};

}  // namespace

void private_directory(const fs::path& path) {
  const fs::path target = resolved_target(path);
  const fs::path below = target.relative_path();
  DirectoryWalk walk(target.root_path());
  for (auto component = below.begin(); component != below.end();) {
    const fs::path& name = *component;
    const auto next = std::next(component);
    walk.enter(name.c_str(), next == below.end());
    component = next;
  }
  walk.require_at(target);
}

}  // namespace tavro::posix_files
