#include "platform/process/child_process.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "platform/process/channel.h"
#include "platform/process/process_image.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds polling_period{5};
constexpr milliseconds max_grace{2000};
constexpr milliseconds kill_time{500};
constexpr std::size_t max_handles = 8;
constexpr char activation = 1;
constexpr int failed_start = 127;
constexpr ArgumentTexts argument_texts = {"Too many launch arguments",
                                          "Launch argument is invalid or too long",
                                          "Launch arguments exceed the total bound"};

void require_startable(const fs::path& executable, const std::vector<std::string>& arguments,
                       const fs::path& directory,
                       const std::map<std::string, std::string>& environment,
                       const std::vector<long>& handles) {
  require(handles.size() <= max_handles, "launch_handles", "Too many private native child handles");
  require(handles.empty(), "launch_handles", "Native handle inheritance is Windows-only");
  require(names_file(executable), "launch_executable",
          "The installed game executable is missing or linked");
  require(names_directory(directory), "launch_directory",
          "Game working directory is missing or linked");
  require_child_arguments(arguments);
  for (const auto& [name, value] : environment)
    require_environment_entry(name, value, "Process environment entry is invalid");
  require(!environment.contains(launcher_interrupt_reader_environment), "process_control",
          "Launcher interrupt authority cannot be supplied as an environment override");
}

/// All that the child touches between fork and its new image. It is laid out before the fork: in a
/// process with other threads nothing may be allocated or locked there.
struct Launch {
  const char* executable;
  const char* directory;
  char* const* arguments;
  char* const* environment;
  ChildStreams streams;
  ChildGroup group;
  InterruptPipe* interrupt;
  int output;
};

/// The start channel (read by the parent) tells whether the image runs: its end comes with a
/// successful exec, and an error number otherwise. The activation channel (first end the parent's)
/// holds the child back until its number has been recorded.
struct StartChannels {
  Channel start;
  UniqueFd input;
  Channel activation;

  explicit StartChannels(int given_input) {
    start = open_pipe();
    require(bool(start.first), "process_start", "Cannot allocate process-start channel");
    require(protect(start), "process_start", "Cannot protect process-start channel");
    input.reset(retried([&] {
      return given_input >= 0 ? ::fcntl(given_input, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                              : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    }));
    require(input && leave_standard_streams(input), "process_start",
            "Cannot create game input stream");
    activation = open_socket_pair();
    require(bool(activation.first), "process_start", "Cannot allocate process activation channel");
    require(protect(activation), "process_start", "Cannot protect process activation channel");
  }

 private:
  static bool protect(Channel& channel) noexcept {
    return leave_standard_streams(channel.first) && leave_standard_streams(channel.second) &&
           close_on_exec(channel.first) && close_on_exec(channel.second);
  }
};

[[noreturn]] void report_failure(int start_channel) noexcept {
  const int error = errno;
  host::write_to_pipe(start_channel, &error, sizeof error);
  ::_exit(failed_start);
}

/// The child: calls that are safe after a fork, on what the parent prepared, and nothing else.
[[noreturn]] void become_image(const Launch& launch, StartChannels& channels) noexcept {
  channels.start.first.reset();
  channels.activation.first.reset();
  const int report = channels.start.second.get();
  const auto must = [report](bool done) noexcept {
    if (!done) report_failure(report);
  };
  // What this process inherited itself may lack the mark.
  host::close_on_exec_from(STDERR_FILENO + 1);
  must(launch.interrupt == nullptr || launch.interrupt->prepare_child());
  must(launch.group == ChildGroup::inherited || ::setpgid(0, 0) == 0);
  char signal = 0;
  const bool activated =
      read_some(channels.activation.second.get(), &signal, 1) == 1 && signal == activation;
  channels.activation.second.reset();
  if (!activated) ::_exit(failed_start);
  must(retried([&] { return ::chdir(launch.directory); }) == 0);
  must(retried([&] { return ::dup2(channels.input.get(), STDIN_FILENO); }) >= 0);
  if (launch.output >= 0) must(retried([&] { return ::dup2(launch.output, STDERR_FILENO); }) >= 0);
  if (launch.output >= 0 || launch.streams == ChildStreams::output_to_errors)
    must(retried([] { return ::dup2(STDERR_FILENO, STDOUT_FILENO); }) >= 0);
  channels.input.reset();
  retried([&] { return ::execve(launch.executable, launch.arguments, launch.environment); });
  report_failure(report);
}

/// The parent: lets the held child go, and returns once its image runs. On failure the child is
/// gone, and without activation none of the image's code has run.
void release_child(pid_t child, StartChannels& channels,
                   const std::function<void(unsigned long long)>& started) {
  try {
    if (started) started(static_cast<unsigned long long>(child));
    const bool sent =
        host::send_without_signal(channels.activation.first.get(), &activation, 1) == 1;
    channels.activation.first.reset();
    require(sent, "process_start", "Cannot activate the prepared game");
    int error = 0;
    const ssize_t count = read_some(channels.start.first.get(), &error, sizeof error);
    channels.start.first.reset();
    require(count == 0, "process_start", "Cannot execute the installed game",
            {"verify GAME", "repair GAME"});
  } catch (...) {
    // A close alone is not seen while a child of another thread, not yet replaced, holds a copy.
    if (channels.activation.first) ::shutdown(channels.activation.first.get(), SHUT_RDWR);
    channels.activation.first.reset();
    channels.start.first.reset();
    retried([&] { return ::waitpid(child, nullptr, 0); });
    throw;
  }
}

/// The status as a shell tells it.
int exit_status_of(int status) noexcept {
  const int low = status & 127;
  if (low == 0) return (status >> 8) & 255;
  return low == 127 ? 1 : low | 128;
}

}  // namespace

void require_child_arguments(const std::vector<std::string>& arguments) {
  require_image_arguments(arguments, argument_texts);
}

ChildProcess::ChildProcess(const fs::path& executable, const std::vector<std::string>& arguments,
                           const fs::path& directory,
                           const std::map<std::string, std::string>& environment,
                           ChildStreams streams, ChildEnvironment inherited,
                           std::function<void(unsigned long long)> started, ChildGroup group,
                           ChildControl control, const std::vector<long>& handles, int output,
                           int input) {
  require_startable(executable, arguments, directory, environment, handles);
  if (control == ChildControl::interrupt) {
    require(streams == ChildStreams::output_inherited && group == ChildGroup::own,
            "process_control",
            "Only an isolated console launcher child receives interrupt control");
    interrupt_ = std::make_unique<InterruptPipe>();
  }
  auto words = image_arguments(executable, arguments);
  auto variables = image_environment(environment, inherited);
  if (interrupt_)
    variables.push_back(std::string(launcher_interrupt_reader_environment) + "=" +
                        interrupt_->child_environment());
  const auto argv = image_vector(words);
  const auto envp = image_vector(variables);
  const Launch launch = {executable.c_str(),
                         directory.c_str(),
                         argv.data(),
                         envp.data(),
                         streams,
                         group,
                         interrupt_.get(),
                         output};
  StartChannels channels(input);
  const pid_t child = ::fork();
  if (child == 0) become_image(launch, channels);
  channels.input.reset();
  channels.start.second.reset();
  channels.activation.second.reset();
  if (interrupt_) interrupt_->close_reader();
  require(child > 0, "process_start", "Cannot create game process");
  release_child(child, channels, started);
  pid_ = static_cast<unsigned long long>(child);
}

ChildProcess::~ChildProcess() {
  if (!exit_status_) ::waitpid(static_cast<pid_t>(pid_), nullptr, WNOHANG);
}

std::optional<int> ChildProcess::poll() {
  if (exit_status_) return exit_status_;
  int status = 0;
  const pid_t ended =
      retried([&] { return ::waitpid(static_cast<pid_t>(pid_), &status, WNOHANG); });
  require(ended >= 0, "process_wait", "Cannot inspect game process");
  if (ended == 0) return std::nullopt;
  ended_by_signal_ = WIFSIGNALED(status);
  exit_status_ = exit_status_of(status);
  return exit_status_;
}

int ChildProcess::wait(const std::function<bool()>& cancelled) {
  require(!cancelled || interrupt_, "process_control",
          "Interruptible waiting needs this owned child's private channel");
  bool asked = false;
  while (!poll()) {
    if (!asked && cancelled && cancelled()) asked = request_interrupt();
    std::this_thread::sleep_for(polling_period);
  }
  return *exit_status_;
}

bool ChildProcess::request_interrupt() { return interrupt_ && !poll() && interrupt_->request(); }

bool ChildProcess::ended_within(milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (poll()) return true;
    std::this_thread::sleep_for(polling_period);
  }
  return poll().has_value();
}

bool ChildProcess::terminate(milliseconds grace) {
  require(grace <= max_grace, "process_wait",
          "Child termination grace must be bounded to two seconds");
  if (poll()) return true;
  const auto child = static_cast<pid_t>(pid_);
  if (::kill(child, SIGTERM) != 0 && errno != ESRCH) return false;
  if (ended_within(grace)) return true;
  if (::kill(child, SIGKILL) != 0 && errno != ESRCH) return false;
  return ended_within(kill_time);
}

}  // namespace tavro
