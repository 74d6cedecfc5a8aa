#include "support/fail_nth_call.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>

#include "domain/error.h"

namespace tavro {
namespace {

struct Strike {
  int nth = 0;
  int error = 0;
  Fault fault = Fault::fail;
  std::string only;
  const SystemCalls* real = nullptr;
  int calls = 0;
  const char* struck = "";
};
Strike strike;

bool struck_before() { return *strike.struck != '\0'; }

/// Counts a call; true when it is the one, or lies behind the one that killed the process.
bool struck_now(const char* name) {
  if (!strike.only.empty() && strike.only != name)
    return strike.fault == Fault::cut && struck_before();
  const bool now = ++strike.calls == strike.nth;
  if (now) strike.struck = name;
  if (now && strike.fault == Fault::kill) kill(getpid(), SIGKILL);
  return now || (strike.fault == Fault::cut && struck_before());
}

/// An open counts only when it may create a file.
bool counts(const char*, int flags, mode_t) { return (flags & O_CREAT) != 0; }
bool counts(int, const char*, int flags, mode_t) { return (flags & O_CREAT) != 0; }
bool counts(...) { return true; }

template <typename Result, typename... Arguments>
Result carry_out(const char* name, Result (*call)(Arguments...), Arguments... arguments) {
  const bool struck = counts(arguments...) && struck_now(name);
  if (!struck || strike.fault == Fault::shorten) return call(arguments...);
  errno = strike.error;
  return -1;
}

ssize_t striking_write(int descriptor, const void* bytes, std::size_t size) {
  const bool already_dead = struck_before();
  if (!struck_now("write")) return strike.real->write(descriptor, bytes, size);
  const bool stores_half = strike.fault != Fault::fail && !already_dead && size > 1;
  const ssize_t stored = stores_half ? strike.real->write(descriptor, bytes, size / 2) : 0;
  if (strike.fault == Fault::shorten)
    return stores_half ? stored : strike.real->write(descriptor, bytes, size);
  errno = strike.error;
  return -1;
}

/// What the kernel has taken outlives all that is done here: only the end of its power would tell
/// whether it was synced.
int striking_fsync(int descriptor) {
  const auto passed_on = [](int file) {
    return strike.real->fsync == ::fsync ? 0 : strike.real->fsync(file);
  };
  return carry_out("fsync", +passed_on, descriptor);
}

#define TAVRO_STRIKING(name) \
  .name = [](auto... arguments) { return carry_out(#name, strike.real->name, arguments...); }

constexpr SystemCalls striking_calls{
    TAVRO_STRIKING(open),      TAVRO_STRIKING(openat),       .write = striking_write,
    .fsync = striking_fsync,   TAVRO_STRIKING(rename),       TAVRO_STRIKING(renameat2),
    TAVRO_STRIKING(link),      TAVRO_STRIKING(unlink),       TAVRO_STRIKING(unlinkat),
    TAVRO_STRIKING(rmdir),     TAVRO_STRIKING(mkdir),        TAVRO_STRIKING(mkdirat),
    TAVRO_STRIKING(fchmod),    TAVRO_STRIKING(fchmodat),     TAVRO_STRIKING(ftruncate),
    TAVRO_STRIKING(fallocate), TAVRO_STRIKING(fremovexattr), TAVRO_STRIKING(flock)};
#undef TAVRO_STRIKING

const SystemCalls& armed(int nth, int error, Fault fault, std::string_view only) {
  strike = {nth, error, fault, std::string(only), &system_calls()};
  return striking_calls;
}

}  // namespace

FailNthCall::FailNthCall(int nth, int error, Fault fault, std::string_view only)
    : scope_(armed(nth, error, fault, only)) {}

int FailNthCall::calls() const { return strike.calls; }

std::string FailNthCall::struck_call() const { return strike.struck; }

int replace_open_file(int descriptor) {
  namespace fs = std::filesystem;
  const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
  fs::rename(path, path.string() + ".old");
  return ::close(::open(path.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

int strike_each_call(Fault fault, int error, const std::function<void()>& prepare,
                     const std::function<void()>& work,
                     const std::function<void(const Stop&)>& check) {
  constexpr int most_rounds = 10000, whole_sweep = 20;
  const int stride = fault == Fault::kill ? process_stride : 1;
  for (int nth = 1; nth <= most_rounds; nth += nth < whole_sweep ? 1 : stride) {
    prepare();
    Stop stop{.nth = nth, .call = {}, .code = {}};
    const pid_t child = fault == Fault::kill ? fork() : 0;
    if (child == 0) {
      const FailNthCall striking(nth, error, fault);
      try {
        work();
      } catch (const Error& failure) {
        stop.code = failure.code;
      } catch (const std::exception& failure) {
        stop.code = failure.what();
      }
      stop.call = striking.struck_call();
      if (fault == Fault::kill) _exit(stop.code.empty() ? 0 : 1);
    } else {
      int status = 0;
      waitpid(child, &status, 0);
      (WIFSIGNALED(status) ? stop.call : stop.code) = status == 0 ? "" : "in a child";
    }
    SCOPED_TRACE("call " + std::to_string(nth) + " " + stop.call + ": " + stop.code);
    check(stop);
    if (!stop.call.empty()) continue;
    EXPECT_EQ(stop.code, "");
    return nth - 1;
  }
  ADD_FAILURE() << "The operation never completes";
  return most_rounds;
}

}  // namespace tavro
