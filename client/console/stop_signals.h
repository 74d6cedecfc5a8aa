#pragma once

namespace tavro {

/// Turns what ends a console program from outside into a question, as `ConsoleInterrupt` does with
/// Ctrl+C: a request to terminate, a terminal that hangs up, an output that nobody reads any more.
/// What was ignored before stays so. One object per process; its end puts back what was before.
class StopSignals {
 public:
  StopSignals() noexcept;
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Whether such a signal has come; true stays true.
  static bool requested() noexcept;
};

/// Fills the places of standard streams that were closed before the start, so that no file of the
/// program gets their numbers and with them what is written for the user. Reading them ends, writing
/// them fails.
void hold_standard_streams() noexcept;

}  // namespace tavro
