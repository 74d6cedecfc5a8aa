#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/process/interrupt.h"

namespace tavro {

/// Where the child's standard output goes. Its errors go where this process's go.
enum class ChildStreams : std::uint32_t { output_to_errors = 0, output_inherited = 1 };

/// What the child inherits of the environment; names of the dynamic loader are LD_... and DYLD_...
enum class ChildEnvironment : std::uint32_t { whole = 0, without_loader = 1 };

/// The child's process group: a child in its own does not hear the console's Ctrl+C.
enum class ChildGroup : std::uint32_t { inherited = 0, own = 1 };

/// Whether the child can be asked to stop by an `InterruptPipe`.
enum class ChildControl : std::uint32_t { none = 0, interrupt = 1 };

/// The rules for a child's arguments: at most 64, each of 4096 bytes without NUL, of 32768
/// together. Else `argument_limit`. For a caller that must know before it commits itself to a
/// start.
void require_child_arguments(const std::vector<std::string>& arguments);

/// One started program. The object owns it until its end is known, but never stops it on its own:
/// destroying the object leaves a running child running. Belongs to one thread.
class ChildProcess {
 public:
  /// Starts `executable` in `directory`, both absolute and no links, and returns once the new image
  /// runs. `arguments` come after the executable's own name and pass `require_child_arguments`.
  /// `environment` overrides what is inherited. Nothing that is open passes to the child, also not
  /// what this process inherited, except the three streams and the channel.
  ///
  /// `started`, when set, gets the process number while the child is still held back: if it throws,
  /// no code of the image has run, and the exception passes on. `handles` belong to other systems
  /// and must be empty here. `output`, unless it is -1, is a descriptor of the caller's that both
  /// output and errors of the child go to, whatever `streams` says; such a child gets no other
  /// descriptor but its input, not even one that this process inherited itself. `input`, unless it
  /// is -1, takes the place of /dev/null as the child's input: a lock on it then lasts as long as
  /// whoever keeps that input, since both descriptors are of one open file.
  ///
  /// Throws with nothing left running: `launch_handles`, `launch_executable`, `launch_directory`,
  /// `argument_limit`, `argument_encoding`, `process_control` (an environment that names the
  /// interrupt channel; or `control` without an own group and inherited output), or
  /// `process_start`, with next commands when the image itself could not be run.
  ChildProcess(const std::filesystem::path& executable, const std::vector<std::string>& arguments,
               const std::filesystem::path& directory,
               const std::map<std::string, std::string>& environment, ChildStreams streams,
               ChildEnvironment inherited, std::function<void(unsigned long long)> started,
               ChildGroup group, ChildControl control, const std::vector<long>& handles = {},
               int output = -1, int input = -1);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  unsigned long long pid() const noexcept { return pid_; }

  /// The exit status once the child has ended, 128 plus the number of a signal that ended it; never
  /// blocks. Throws `process_wait` when the system cannot tell, as in a program that ignores
  /// SIGCHLD: there no end is kept.
  std::optional<int> poll();
  /// Whether a signal ended the child: a status above 128 may be its own. False until it has ended.
  bool ended_by_signal() const noexcept { return ended_by_signal_; }

  /// Blocks, without a limit, until the child has ended. `cancelled`, which may be empty, is asked
  /// every 5 milliseconds until it is true and the child could be asked to stop: a child that
  /// ignores this keeps the wait going. Throws `process_control` when `cancelled` is set and the
  /// child has no interrupt channel; else as `poll`.
  int wait(const std::function<bool()>& cancelled);

  /// Asks the child to stop. False without an interrupt channel, when the child has ended, or when
  /// it no longer listens; true also when it was asked before. Throws as `poll`.
  bool request_interrupt();

  /// Ends the child, and it alone: SIGTERM, after `grace` of at most 2000 milliseconds SIGKILL, and
  /// 500 milliseconds more. True when it is known to have ended. Throws `process_wait`.
  bool terminate(std::chrono::milliseconds grace);

  /// A handle on which the child's end can be awaited; empty, since this system has none.
  std::optional<long> notification_handle() const noexcept { return std::nullopt; }

 private:
  bool ended_within(std::chrono::milliseconds limit);

  unsigned long long pid_ = 0;
  std::optional<int> exit_status_;
  bool ended_by_signal_ = false;
  std::unique_ptr<InterruptPipe> interrupt_;
};

}  // namespace tavro
