#include "console/stop_signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>

namespace tavro {
namespace {

constexpr std::array stops{SIGTERM, SIGHUP, SIGPIPE};

// Set by the handler, on whatever thread the signal arrives.
std::atomic<bool> stopped{false};
static_assert(std::atomic<bool>::is_always_lock_free);

std::array<struct sigaction, stops.size()> previous_actions;

extern "C" void note_stop(int) { stopped = true; }

}  // namespace

StopSignals::StopSignals() noexcept {
  stopped = false;
  struct sigaction action {};
  action.sa_handler = note_stop;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (std::size_t at = 0; at < stops.size(); ++at) {
    auto& previous = previous_actions[at];
    if (::sigaction(stops[at], nullptr, &previous) == 0 && previous.sa_handler != SIG_IGN)
      ::sigaction(stops[at], &action, nullptr);
  }
}

StopSignals::~StopSignals() {
  for (std::size_t at = 0; at < stops.size(); ++at)
    ::sigaction(stops[at], &previous_actions[at], nullptr);
}

bool StopSignals::requested() noexcept { return stopped; }

void hold_standard_streams() noexcept {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    // The lowest free number is taken, which is this one. It stays open for the whole run.
    if (::fcntl(stream, F_GETFD) < 0 && errno == EBADF) (void)::open("/dev/null", O_RDONLY);
}

}  // namespace tavro
