#include "platform/files/file_locks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iterator>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr mode_t lock_mode = S_IRUSR | S_IWUSR;

bool single_file(const struct stat& node) { return S_ISREG(node.st_mode) && node.st_nlink == 1; }

bool own_lock_file(const struct stat& node) {
  return single_file(node) && node.st_uid == ::geteuid() &&
         (node.st_mode & posix_files::mode_bits) == lock_mode;
}

/// A lock file of an installation is empty besides.
bool private_lock(const struct stat& node) { return own_lock_file(node) && node.st_size == 0; }

bool plain_directory(const fs::path& path) {
  const auto node = posix_files::node_at(path);
  return node && S_ISDIR(node->st_mode);
}

/// Whether the path's ancestors are plain directories.
bool ordinary_parent(const fs::path& path) {
  const fs::path parent = resolve_system_links(path).parent_path();
  const fs::path below = parent.relative_path();
  if (std::distance(below.begin(), below.end()) > posix_files::max_ancestry) return false;
  fs::path ancestor = parent.root_path();
  for (const auto& component : below) {
    ancestor /= component;
    if (!plain_directory(ancestor)) return false;
  }
  return plain_directory(parent);
}

UniqueFd open_lock(const fs::path& path, int flags) {
  constexpr int always = O_NOFOLLOW | O_CLOEXEC;
  UniqueFd file = posix_files::open(path, O_RDWR | always | flags, lock_mode);
  // On a read-only volume it excludes as well: nothing is ever written to it.
  if (!file && errno == EROFS && (flags & O_CREAT) == 0)
    file = posix_files::open(path, O_RDONLY | always | flags);
  return file;
}

UniqueFd create_or_open(const fs::path& path, int create_flags) {
  UniqueFd file = open_lock(path, create_flags | O_CREAT | O_EXCL);
  if (file)
    posix_files::secure_new_private(file.get(), false);
  else if (errno == EEXIST)
    file = open_lock(path, O_NONBLOCK);
  return file;
}

/// Takes the lock, or answers false with `errno` set.
bool take(int descriptor, LockMode mode, bool wait) {
  const int operation = (mode == LockMode::exclusive ? LOCK_EX : LOCK_SH) | (wait ? 0 : LOCK_NB);
  return retried([&] { return system_calls().flock(descriptor, operation); }) == 0;
}

bool known(LockMode mode) { return mode == LockMode::exclusive || mode == LockMode::shared; }

bool known(NativeLockSharing sharing) {
  return sharing == NativeLockSharing::none || sharing == NativeLockSharing::read;
}

/// Whether the path names the open file, and that is still fit to be a lock.
bool names(const fs::path& path, int descriptor, bool (*fit)(const struct stat&)) {
  const auto held = posix_files::node_of(descriptor);
  const auto named = posix_files::node_at(path);
  return held && named && fit(*held) && fit(*named) && posix_files::same_node(*held, *named);
}

}  // namespace

FileLock::FileLock(const fs::path& path, bool wait, LockMode mode) {
  private_directory(path.parent_path());
  descriptor_ = create_or_open(path, 0);
  require(bool(descriptor_), "lock_failed", [&path, error = errno] {
    return "Cannot open operation lock" + posix_files::failed_because(path, error);
  });
  const auto node = posix_files::node_of(descriptor_.get());
  require(node && own_lock_file(*node), "lock_failed", [&path] {
    return "Operation lock must be an ordinary private owned file: " + path_utf8(path);
  });
  posix_files::require_private_acl(descriptor_.get(), false, path);
  require(take(descriptor_.get(), mode, wait), "busy",
          [] { return branded("Another Tavro operation is using this state"); });
}

void FileLock::retain_until_process_exit() noexcept { descriptor_.release(); }

bool FileLock::matches_path(const fs::path& path) const noexcept {
  if (!descriptor_) return false;
  try {
    posix_files::require_private_acl(descriptor_.get(), false);
    posix_files::require_private_path(fs::absolute(path), false);
    return names(path, descriptor_.get(), single_file);
  } catch (const std::exception&) {
    return false;
  }
}

NativeFileLock::NativeFileLock(const fs::path& path, bool create, NativeLockSharing sharing,
                               LockMode mode) {
  constexpr char code[] = "lock_failed";
  require(posix_files::bounded_path(path) && known(sharing) && known(mode), code,
          "Native ownership requires a bounded lock path and known sharing");
  require(ordinary_parent(path), code, "Native ownership requires ordinary existing parents");
  descriptor_ = create ? create_or_open(path, O_NONBLOCK) : open_lock(path, O_NONBLOCK);
  require(bool(descriptor_), code, [&path, error = errno] {
    return "Native ownership requires an ordinary empty private file" +
           posix_files::failed_because(path, error);
  });
  const auto node = posix_files::node_of(descriptor_.get());
  require(node && private_lock(*node), code,
          "Native ownership requires an ordinary empty private file");
  posix_files::require_private_acl(descriptor_.get(), false);
  const bool locked = take(descriptor_.get(), mode, false);
  require(locked || errno != EWOULDBLOCK, "busy", "Another worker owns this native installation");
  require(locked, code, "Cannot acquire native installation ownership");
  // The file may have been replaced between the open and the lock.
  require(matches_path(path), code, "Native ownership path changed while locking");
}

bool NativeFileLock::matches_path(const fs::path& path) const noexcept {
  if (!descriptor_ || !posix_files::bounded_path(path)) return false;
  try {
    if (!ordinary_parent(path)) return false;
    posix_files::require_private_acl(descriptor_.get(), false);
    return names(path, descriptor_.get(), private_lock);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavro
