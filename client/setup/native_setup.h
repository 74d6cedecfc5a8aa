#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "domain/json.h"
#include "setup/setup_command.h"

namespace tavro {

/// Runs setup commands for a front end that must not block: one at a time, on a thread of its own,
/// with a view of the run that can be asked for at any moment. One thread starts commands and ends
/// the object; everything else may be called from any.
///
/// Sentences carry the product's name, which belongs to the whole process: a front end sets its
/// brand before it starts a command, not while one runs.
class NativeSetup {
 public:
  struct View {
    bool running = false;
    /// The phase that was last reported: "verifying", "installing" or "removing".
    std::string phase;
    /// Bytes of the phase; `total` is 0 while it is unknown.
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    /// The command's document; null until the end and after a failure.
    json result;
    /// Empty without a failure.
    std::string error_code;
    std::string error_message;
  };

  /// Starts nothing. `seal` is the digest of the initial package that this program was built for.
  explicit NativeSetup(std::string seal);
  /// Asks a run to stop and waits for its end: it stops at the engine's next safe boundary, and a
  /// commit or a removal that has begun is finished first.
  ~NativeSetup();
  NativeSetup(const NativeSetup&) = delete;
  NativeSetup& operator=(const NativeSetup&) = delete;

  /// Starts the command with a new view. Not to be called by the wakeup, which runs on the thread
  /// that a new run has to wait for. Throws `busy` while a run is at work, which is left alone; a
  /// thread that the system refuses is a `std::system_error` and no run. What the command itself
  /// fails with is in the view: the engine's code, or `setup_failed`.
  void start(SetupCommand command);

  View view() const;

  /// What is called after each change that the run makes to the view, on its thread; empty for
  /// nothing. It may ask for the view; it is called for every block of a file, so that it decides
  /// how often something is painted. It must not throw.
  void set_wakeup(std::function<void()> wakeup);

  /// Asks the run to stop, which ends it with `cancelled` if it still can; returns at once.
  void cancel() noexcept;

 private:
  struct State;

  std::unique_ptr<State> state_;
};

}  // namespace tavro
