#pragma once

#include <memory>
#include <string>

#include "domain/unique_fd.h"

namespace tavro {

/// The environment variable that names the channel on which a parent process passes a stop request.
inline constexpr char launcher_interrupt_reader_environment[] = "TAVRO_LAUNCHER_INTERRUPT_READER";

/// Turns Ctrl+C into a question that the work asks at its safe boundaries: nothing happens inside
/// the signal handler, so that no durable write is cut. One at a time per process.
class ConsoleInterrupt {
 public:
  /// Installs the handler; a second object while the first lives is `signal`. With `attach` true it
  /// first listens on the pipe that the environment names, if it names one; a malformed name is
  /// `launcher_control`. A top-level program passes false.
  explicit ConsoleInterrupt(bool attach);
  /// Puts the former handler back.
  ~ConsoleInterrupt();
  ConsoleInterrupt(const ConsoleInterrupt&) = delete;
  ConsoleInterrupt& operator=(const ConsoleInterrupt&) = delete;

  /// Whether a stop was asked for; true stays true. Never blocks; one thread at a time. Throws
  /// `launcher_control` for a channel that fails or carries anything but the request.
  bool requested() const;

  /// A channel from the parent is attached and has not reached its end.
  static bool parent_reader_attached() noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// The sending side: a pipe on which a parent asks one child to stop. It closes with the object,
/// which asks for nothing. Both ends have numbers above the standard streams and are close-on-exec.
class InterruptPipe {
 public:
  /// Throws `process_control`.
  InterruptPipe();
  InterruptPipe(const InterruptPipe&) = delete;
  InterruptPipe& operator=(const InterruptPipe&) = delete;

  /// The value of `launcher_interrupt_reader_environment` for the child.
  std::string child_environment() const;

  /// For the forked child before its new image, and safe there: lets the read end, and it alone,
  /// pass on. False with `errno` set.
  bool prepare_child() noexcept;

  /// For the parent after the fork: from here on the child alone can read.
  void close_reader() noexcept;

  /// Sends the request, once; true when it has been sent, now or earlier. False when the child is
  /// gone, and then no signal is left behind. Any `SIGPIPE` of somebody else stays.
  bool request() noexcept;

 private:
  UniqueFd reader_;
  UniqueFd writer_;
  bool requested_ = false;
};

}  // namespace tavro
