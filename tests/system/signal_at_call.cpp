// Preloaded into a program under test: sends it a signal at its Nth call that opens a file or
// changes the disk, before the call happens. TAVRO_TEST_SIGNAL and TAVRO_TEST_CALL say which and
// when; TAVRO_TEST_COUNT names a file that gets the number of calls when the program ends by
// itself.

#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>

namespace {

long number(const char* key) {
  const char* text = std::getenv(key);
  return text == nullptr ? 0 : std::atol(text);
}

constexpr long never = -1000000;
std::atomic<long> calls{0};

void count_call() {
  static const long wanted = number("TAVRO_TEST_CALL");
  static const int signal = static_cast<int>(number("TAVRO_TEST_SIGNAL"));
  if (++calls == wanted) kill(getpid(), signal);
}

struct Report {
  // What the program starts is another program.
  Report() { unsetenv("LD_PRELOAD"); }
  ~Report() {
    const char* file = std::getenv("TAVRO_TEST_COUNT");
    const long total = calls.exchange(never);  // what follows is not the program's own
    if (file != nullptr) std::ofstream(file) << total;
  }
} report;

}  // namespace

// The labels give the functions the C library's names without meeting its declarations.
#define COUNTED(result, name, parameters, ...)                                                 \
  extern "C" result counted_##name parameters __asm__(#name);                                  \
  extern "C" result counted_##name parameters {                                                \
    static auto* const next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    count_call();                                                                              \
    return next(__VA_ARGS__);                                                                  \
  }

// The mode is an optional argument of these; it is passed in the same register either way.
COUNTED(int, open, (const char* path, int flags, mode_t mode), path, flags, mode)
COUNTED(int, open64, (const char* path, int flags, mode_t mode), path, flags, mode)
COUNTED(int, openat, (int at, const char* path, int flags, mode_t mode), at, path, flags, mode)
COUNTED(int, openat64, (int at, const char* path, int flags, mode_t mode), at, path, flags, mode)
COUNTED(ssize_t, write, (int file, const void* bytes, size_t size), file, bytes, size)
COUNTED(int, fsync, (int file), file)
COUNTED(int, fdatasync, (int file), file)
COUNTED(int, ftruncate64, (int file, off64_t size), file, size)
COUNTED(int, fallocate64, (int file, int mode, off64_t at, off64_t size), file, mode, at, size)
COUNTED(int, flock, (int file, int operation), file, operation)
COUNTED(int, mkdir, (const char* path, mode_t mode), path, mode)
COUNTED(int, mkdirat, (int at, const char* path, mode_t mode), at, path, mode)
COUNTED(int, rename, (const char* from, const char* to), from, to)
COUNTED(int, renameat, (int from_at, const char* from, int to_at, const char* to), from_at, from,
        to_at, to)
COUNTED(int, renameat2, (int from_at, const char* from, int to_at, const char* to, unsigned flags),
        from_at, from, to_at, to, flags)
COUNTED(int, link, (const char* from, const char* to), from, to)
COUNTED(int, linkat, (int from_at, const char* from, int to_at, const char* to, int flags), from_at,
        from, to_at, to, flags)
COUNTED(int, remove, (const char* path), path)
COUNTED(int, unlink, (const char* path), path)
COUNTED(int, unlinkat, (int at, const char* path, int flags), at, path, flags)
COUNTED(int, rmdir, (const char* path), path)
