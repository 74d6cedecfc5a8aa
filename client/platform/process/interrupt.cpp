#include "platform/process/interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <limits>
#include <string>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/unique_fd.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "platform/process/channel.h"

namespace tavro {
namespace {

constexpr std::size_t max_handle_text = 32;
constexpr std::string_view channel_version = "1:";
constexpr char stop_request = 1;

std::atomic<unsigned char> scope_owned{0};
// Set by the handler, on whatever thread the signal arrives.
std::atomic<unsigned char> interrupted{0};
static_assert(std::atomic<unsigned char>::is_always_lock_free);
std::atomic<bool> reader_attached{false};

extern "C" void note_interrupt(int) { interrupted = 1; }

/// The descriptor that a handle text names.
int channel_descriptor(std::string_view handle) {
  require(handle.starts_with(channel_version) && handle.size() > channel_version.size(),
          "launcher_control", "Launcher interrupt channel version is invalid");
  const std::string_view number = handle.substr(channel_version.size());
  unsigned long long value = 0;
  const auto parsed = std::from_chars(number.data(), number.data() + number.size(), value);
  // 0, 1 and 2 are the standard streams, and never a channel.
  require(parsed.ec == std::errc() && std::to_string(value) == number && value >= 3,
          "launcher_control", "Launcher interrupt channel handle is invalid");
  require(value <= std::numeric_limits<int>::max(), "launcher_control",
          "Launcher interrupt descriptor is invalid");
  return static_cast<int>(value);
}

/// Keeps a `SIGPIPE` that this thread's own write causes from reaching anybody; others are let be.
class WithoutPipeSignal {
 public:
  WithoutPipeSignal() noexcept {
    sigemptyset(&pipe_signal_);
    sigaddset(&pipe_signal_, SIGPIPE);
    blocked_ = ::pthread_sigmask(SIG_BLOCK, &pipe_signal_, &previous_) == 0;
    ready_ = blocked_ && look(pending_before_);
  }
  ~WithoutPipeSignal() {
    if (blocked_) ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  WithoutPipeSignal(const WithoutPipeSignal&) = delete;
  WithoutPipeSignal& operator=(const WithoutPipeSignal&) = delete;

  explicit operator bool() const noexcept { return ready_; }

  /// After a write that failed with `EPIPE`.
  void consume() noexcept {
    bool pending = false;
    int taken = 0;
    if (!pending_before_ && look(pending) && pending) ::sigwait(&pipe_signal_, &taken);
  }

 private:
  static bool look(bool& pending) noexcept {
    sigset_t signals;
    if (::sigpending(&signals) != 0) return false;
    pending = sigismember(&signals, SIGPIPE) == 1;
    return true;
  }

  sigset_t pipe_signal_{};
  sigset_t previous_{};
  bool blocked_ = false;
  bool ready_ = false;
  bool pending_before_ = false;
};

}  // namespace

struct ConsoleInterrupt::State {
  bool owner = false;
  bool installed = false;
  UniqueFd reader;
  struct sigaction previous {};

  ~State() {
    if (installed) ::sigaction(SIGINT, &previous, nullptr);
    reader.reset();
    if (!owner) return;
    reader_attached = false;
    scope_owned = 0;
  }

  void attach_reader() {
    const std::string handle =
        process_environment(launcher_interrupt_reader_environment, max_handle_text);
    if (handle.empty()) return;
    const int descriptor = channel_descriptor(handle);
    const int status_flags = ::fcntl(descriptor, F_GETFL);
    const int descriptor_flags = ::fcntl(descriptor, F_GETFD);
    struct stat status {};
    require(status_flags >= 0 && (status_flags & O_ACCMODE) == O_RDONLY && descriptor_flags >= 0 &&
                ::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode),
            "launcher_control", "Launcher interrupt reader must be an inherited read pipe");
    reader.reset(descriptor);
    // The channel must not pass to this process's own children, and a question must never wait.
    require(::fcntl(descriptor, F_SETFD, descriptor_flags | FD_CLOEXEC) == 0 &&
                ::fcntl(descriptor, F_SETFL, status_flags | O_NONBLOCK) == 0,
            "launcher_control", "Cannot protect launcher interrupt reader");
  }

  void install() {
    unsigned char free = 0;
    owner = scope_owned.compare_exchange_strong(free, 1);
    // The owner may be listening on this very descriptor, and goes on.
    if (!owner) reader.release();
    require(owner, "signal", "Console cancellation handler is already installed");
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = note_interrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    require(::sigaction(SIGINT, &action, &previous) == 0, "signal",
            "Cannot enable safe cancellation from Ctrl+C");
    installed = true;
    reader_attached = bool(reader);
  }

  bool requested() {
    if (interrupted != 0) return true;
    if (!reader) return false;
    char request = 0;
    const ssize_t count = read_some(reader.get(), &request, 1);
    if (count == 0) {
      // The parent is gone, which asks for nothing; Ctrl+C on the console still works.
      reader.reset();
      reader_attached = false;
      return false;
    }
    if (count < 0 && errno == EAGAIN) return false;
    require(count > 0, "launcher_control", "Cannot read launcher interrupt channel");
    require(request == stop_request, "launcher_control",
            "Launcher interrupt channel request is invalid");
    interrupted = 1;
    return true;
  }
};

ConsoleInterrupt::ConsoleInterrupt(bool attach) : state_(new State) {
  if (attach) state_->attach_reader();
  state_->install();
}

ConsoleInterrupt::~ConsoleInterrupt() = default;

bool ConsoleInterrupt::requested() const { return state_->requested(); }

bool ConsoleInterrupt::parent_reader_attached() noexcept { return reader_attached; }

InterruptPipe::InterruptPipe() {
  Channel ends = open_pipe();
  require(bool(ends.first), "process_control", "Cannot create launcher interrupt pipe");
  for (UniqueFd* end : {&ends.first, &ends.second}) {
    require(leave_standard_streams(*end), "process_control",
            "Cannot relocate launcher interrupt pipe");
    require(close_on_exec(*end), "process_control", "Cannot protect launcher interrupt pipe");
  }
  reader_ = std::move(ends.first);
  writer_ = std::move(ends.second);
}

std::string InterruptPipe::child_environment() const {
  return std::string(channel_version) + std::to_string(reader_.get());
}

bool InterruptPipe::prepare_child() noexcept {
  writer_.reset();
  const int flags = retried([&] { return ::fcntl(reader_.get(), F_GETFD); });
  return flags >= 0 &&
         retried([&] { return ::fcntl(reader_.get(), F_SETFD, flags & ~FD_CLOEXEC); }) == 0;
}

void InterruptPipe::close_reader() noexcept { reader_.reset(); }

bool InterruptPipe::request() noexcept {
  if (requested_) return true;
  if (!writer_) return false;
  WithoutPipeSignal quiet;
  if (!quiet) return false;
  const long sent = host::write_to_pipe(writer_.get(), &stop_request, 1);
  if (sent < 0 && errno == EPIPE) quiet.consume();
  requested_ = sent == 1;
  return requested_;
}

}  // namespace tavro
