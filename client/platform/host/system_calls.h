#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>

namespace tavro {

/// The calls that change the disk, as the system answers them: -1 with `errno` set on failure,
/// interruptions included. Every such call of the client goes through the table in force, so that
/// each one can be made to fail where it happens; tools/lint refuses any other.
struct SystemCalls {
  int (*open)(const char* path, int flags, mode_t mode);
  int (*openat)(int directory, const char* name, int flags, mode_t mode);
  ssize_t (*write)(int descriptor, const void* bytes, std::size_t size);
  int (*fsync)(int descriptor);
  int (*rename)(const char* from, const char* to);
  int (*renameat2)(int from_directory, const char* from, int to_directory, const char* to,
                   unsigned flags);
  int (*link)(const char* from, const char* to);
  int (*unlink)(const char* path);
  int (*unlinkat)(int directory, const char* name, int flags);
  int (*rmdir)(const char* path);
  int (*mkdir)(const char* path, mode_t mode);
  int (*mkdirat)(int directory, const char* name, mode_t mode);
  int (*fchmod)(int descriptor, mode_t mode);
  int (*fchmodat)(int directory, const char* name, mode_t mode, int flags);
  int (*ftruncate)(int descriptor, off_t size);
  int (*fallocate)(int descriptor, int mode, off_t offset, off_t size);
  int (*fremovexattr)(int descriptor, const char* name);
  int (*flock)(int descriptor, int operation);
};

/// The table in force.
const SystemCalls& system_calls() noexcept;

/// Puts another table in force until the scope ends; scopes nest, and reach every thread.
class SystemCallScope {
 public:
  explicit SystemCallScope(const SystemCalls& calls) noexcept;
  SystemCallScope(const SystemCallScope&) = delete;
  SystemCallScope& operator=(const SystemCallScope&) = delete;
  ~SystemCallScope();

 private:
  const SystemCalls* previous_;
};

/// The answer of `call`, repeated while it is interrupted; no other failure is ever repeated.
template <typename Call>
auto retried(Call&& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

}  // namespace tavro
