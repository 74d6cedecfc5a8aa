#pragma once

#include <filesystem>

#include "domain/unique_fd.h"

namespace tavro {

enum class LockMode { exclusive = 0, shared = 1 };

/// How a lock file may be opened by others meanwhile, on a system whose files have such modes.
enum class NativeLockSharing { none = 0, read = 1 };

/// Guards an operation: a private lock file in a private directory, both created if needed. The
/// lock belongs to the object, not to the thread: two objects of one process exclude each other.
/// It ends with the object or the process; the file is never removed, since its removal would let
/// two processes hold "the" lock.
class FileLock {
 public:
  /// With `wait` there is no time limit; without it a lock that is held is `busy` at once. Throws
  /// `lock_failed`, `permissions`, or what `private_directory` throws.
  FileLock(const std::filesystem::path& path, bool wait, LockMode mode);

  /// From now on the lock lives until the process ends; it does not pass to a new image.
  void retain_until_process_exit() noexcept;
  /// Whether this lock still holds the very file that `path` names. Never throws.
  bool matches_path(const std::filesystem::path& path) const noexcept;
  /// For a child that holds the lock as well, until both have let it go.
  int descriptor() const noexcept { return descriptor_.get(); }

 private:
  UniqueFd descriptor_;
};

/// Owns a native installation: the lock file is empty, lies in ordinary directories that exist
/// already, and is never waited for. Otherwise as `FileLock`.
class NativeFileLock {
 public:
  /// With `create` false the file must exist. Throws `busy` when another worker holds it,
  /// `lock_failed` for everything else that is not as the system made it, or `permissions`.
  NativeFileLock(const std::filesystem::path& path, bool create, NativeLockSharing sharing,
                 LockMode mode);

  /// As `FileLock::matches_path`.
  bool matches_path(const std::filesystem::path& path) const noexcept;

 private:
  UniqueFd descriptor_;
};

}  // namespace tavro
