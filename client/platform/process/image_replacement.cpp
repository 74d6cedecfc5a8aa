#include "platform/process/image_replacement.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "domain/error.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "platform/process/child_process.h"
#include "platform/process/interrupt.h"
#include "platform/process/process_image.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr ArgumentTexts argument_texts = {"Too many replacement arguments",
                                          "Invalid maintenance argument",
                                          "Maintenance arguments exceed their bound"};

[[noreturn]] void replace_image(const fs::path& executable,
                                const std::vector<std::string>& arguments,
                                const fs::path& directory,
                                const std::map<std::string, std::string>& environment,
                                ChildEnvironment inherited) {
  require(names_file(executable) && names_directory(directory), "process_start",
          "Replacement image or directory is unavailable");
  require_image_arguments(arguments, argument_texts);
  for (const auto& [name, value] : environment) {
    require_environment_entry(name, value, "Invalid maintenance environment");
    require(name != launcher_interrupt_reader_environment, "process_control",
            "Maintenance cannot inherit launcher interrupt authority");
  }
  auto words = image_arguments(executable, arguments);
  auto variables = image_environment(environment, inherited);
  const auto argv = image_vector(words);
  const auto envp = image_vector(variables);

  // A working directory that was deleted is none to come back to.
  std::error_code ignored;
  const fs::path before = fs::current_path(ignored);
  require(retried([&] { return ::chdir(directory.c_str()); }) == 0, "process_start",
          "Cannot enter the external maintenance runtime");
  host::close_on_exec_from(STDERR_FILENO + 1);
  retried([&] { return ::execve(executable.c_str(), argv.data(), envp.data()); });
  const int error = errno;
  if (!before.empty()) fs::current_path(before, ignored);
  fail("process_start", "Cannot replace this process (native error " + std::to_string(error) + ")");
}

/// What a program is spawned with, released with the object.
class SpawnFiles {
 public:
  SpawnFiles() {
    require(::posix_spawn_file_actions_init(&actions_) == 0, "desktop_unavailable",
            "Cannot initialize native directory opening");
  }
  ~SpawnFiles() { ::posix_spawn_file_actions_destroy(&actions_); }
  SpawnFiles(const SpawnFiles&) = delete;
  SpawnFiles& operator=(const SpawnFiles&) = delete;

  posix_spawn_file_actions_t* get() noexcept { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

}  // namespace

void replace_process(const fs::path& executable, const std::vector<std::string>& arguments,
                     const fs::path& directory,
                     const std::map<std::string, std::string>& environment) {
  replace_image(executable, arguments, directory, environment, ChildEnvironment::without_loader);
}

void exec_process(const fs::path& executable, const std::vector<std::string>& arguments,
                  const fs::path& directory,
                  const std::map<std::string, std::string>& environment) {
  replace_image(executable, arguments, directory, environment, ChildEnvironment::whole);
}

void open_directory(const fs::path& path) {
  require(names_directory(path), "location_unavailable", "Local directory is unavailable");
  std::vector<std::string> words = {host::desktop_opener(), path.native()};
  const auto argv = image_vector(words);
  SpawnFiles files;
  host::close_on_exec_from(STDERR_FILENO + 1);
  // What the opener has to say must not get into a program's own output.
  pid_t opener = -1;
  require(
      ::posix_spawn_file_actions_adddup2(files.get(), STDERR_FILENO, STDOUT_FILENO) == 0 &&
          ::posix_spawnp(&opener, argv.front(), files.get(), nullptr, argv.data(), environ) == 0,
      "desktop_unavailable", "No native directory opener is available");
  int status = 0;
  const bool ended = retried([&] { return ::waitpid(opener, &status, 0); }) == opener;
  require(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0, "desktop_unavailable",
          "Native directory opening failed");
}

}  // namespace tavro
