#pragma once

#include <array>
#include <csignal>

namespace tavro {

/// Keeps the signals with which a user or the system stops a program (SIGINT, SIGTERM, SIGHUP,
/// SIGQUIT) from cutting work off, and notes them; those that came take their usual course when
/// this ends. One that is ignored stays ignored. A pipe that nobody reads does not end the process
/// meanwhile either. A started program has none of this. One at a time per process.
class HeldSignals {
 public:
  HeldSignals() noexcept;
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;
  ~HeldSignals();

  static constexpr std::array stops = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

  /// Whether the process was asked to stop.
  static bool requested() noexcept;

 private:
  std::array<struct sigaction, stops.size()> former_{};
  struct sigaction former_pipe_ {};
};

}  // namespace tavro
