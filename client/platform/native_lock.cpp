#include "platform/native_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iterator>

#include "domain/error.h"
#include "domain/product_name.h"
#include "platform/files.h"
#include "platform/posix_files.h"
#include "platform/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr int max_components = 128;
constexpr mode_t lock_mode = S_IRUSR | S_IWUSR;

bool own_lock_file(const struct stat& node) {
  constexpr mode_t all_bits = 07777;
  return S_ISREG(node.st_mode) && node.st_nlink == 1 && node.st_uid == ::geteuid() &&
         (node.st_mode & all_bits) == lock_mode;
}

/// A lock file of an installation is empty besides.
bool private_lock(const struct stat& node) { return own_lock_file(node) && node.st_size == 0; }

bool plain_directory(const fs::path& path) {
  struct stat node {};
  return ::lstat(path.c_str(), &node) == 0 && S_ISDIR(node.st_mode);
}

/// Whether the path's ancestors are plain directories.
bool ordinary_parent(const fs::path& path) {
  const fs::path parent = resolve_system_links(path).parent_path();
  const fs::path below = parent.relative_path();
  if (std::distance(below.begin(), below.end()) > max_components) return false;
  fs::path ancestor = parent.root_path();
  for (const auto& component : below) {
    ancestor /= component;
    if (!plain_directory(ancestor)) return false;
  }
  return plain_directory(parent);
}

UniqueFd open_lock(const fs::path& path, int flags) {
  constexpr int always = O_RDWR | O_NOFOLLOW | O_CLOEXEC;
  return UniqueFd(
      retried([&] { return system_calls().open(path.c_str(), always | flags, lock_mode); }));
}

UniqueFd create_or_open(const fs::path& path, int create_flags) {
  UniqueFd file = open_lock(path, create_flags | O_CREAT | O_EXCL);
  if (file)
    posix_files::secure_new_private(file.get(), false);
  else if (errno == EEXIST)
    file = open_lock(path, O_NONBLOCK);
  return file;
}

int lock_operation(LockMode mode) { return mode == LockMode::exclusive ? LOCK_EX : LOCK_SH; }

bool known(LockMode mode) { return mode == LockMode::exclusive || mode == LockMode::shared; }

bool known(NativeLockSharing sharing) {
  return sharing == NativeLockSharing::none || sharing == NativeLockSharing::read;
}

/// Both results, or false when either cannot be had.
bool both_status(int descriptor, const fs::path& path, struct stat& held, struct stat& named) {
  return ::fstat(descriptor, &held) == 0 && ::lstat(path.c_str(), &named) == 0;
}

}  // namespace

FileLock::FileLock(const fs::path& path, bool wait, LockMode mode) {
  private_directory(path.parent_path());
  descriptor_ = create_or_open(path, 0);
  require(bool(descriptor_), "lock_failed", "Cannot open operation lock");
  struct stat node {};
  require(::fstat(descriptor_.get(), &node) == 0 && own_lock_file(node), "lock_failed",
          "Operation lock must be an ordinary private owned file");
  posix_files::require_private_acl(descriptor_.get());
  const int operation = lock_operation(mode) | (wait ? 0 : LOCK_NB);
  const bool locked =
      retried([&] { return system_calls().flock(descriptor_.get(), operation); }) == 0;
  require(locked, "busy", [] { return branded("Another Tavro operation is using this state"); });
}

void FileLock::retain_until_process_exit() noexcept { descriptor_.release(); }

bool FileLock::matches_path(const fs::path& path) const noexcept {
  if (!descriptor_) return false;
  try {
    posix_files::require_private_acl(descriptor_.get());
    posix_files::require_private_path(fs::absolute(path), false);
    struct stat held {};
    struct stat named {};
    return both_status(descriptor_.get(), path, held, named) && S_ISREG(held.st_mode) &&
           held.st_nlink == 1 && named.st_nlink == 1 && posix_files::same_node(held, named);
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
  struct stat node {};
  require(descriptor_ && ::fstat(descriptor_.get(), &node) == 0 && private_lock(node), code,
          "Native ownership requires an ordinary empty private file");
  posix_files::require_private_acl(descriptor_.get());
  const int operation = lock_operation(mode) | LOCK_NB;
  const bool locked =
      retried([&] { return system_calls().flock(descriptor_.get(), operation); }) == 0;
  require(locked || errno != EWOULDBLOCK, "busy", "Another worker owns this native installation");
  require(locked, code, "Cannot acquire native installation ownership");
  // The file may have been replaced between the open and the lock.
  require(matches_path(path), code, "Native ownership path changed while locking");
}

bool NativeFileLock::matches_path(const fs::path& path) const noexcept {
  if (!descriptor_ || !posix_files::bounded_path(path)) return false;
  try {
    if (!ordinary_parent(path)) return false;
    posix_files::require_private_acl(descriptor_.get());
    struct stat held {};
    struct stat named {};
    return both_status(descriptor_.get(), path, held, named) && private_lock(held) &&
           private_lock(named) && posix_files::same_node(held, named);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavro
