// Times how programs are started, beside the bare calls. Prints one JSON document; bench/compare.py
// makes the table.

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <iostream>

#include "in_turn.h"
#include "platform/process/child_process.h"

namespace {

using namespace tavro;

double milliseconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

/// From the exec of the first program to the first line of the last one's `main`, which tells the
/// time on its standard output.
double chain_ms(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  std::array<int, 2> told{};
  must(pipe2(told.data(), O_CLOEXEC) == 0, "pipe");
  const pid_t first = fork();
  must(first >= 0, "fork");
  if (first == 0) {
    dup2(told[1], STDOUT_FILENO);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (write(STDOUT_FILENO, &now, sizeof now) == sizeof now) execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(told[1]);
  std::array<timespec, 2> times{};
  for (auto& time : times)
    must(read(told[0], &time, sizeof time) == sizeof time, "the launcher started");
  close(told[0]);
  waitpid(first, nullptr, 0);
  return milliseconds(times[1]) - milliseconds(times[0]);
}

double child_ms(const std::string& image) {
  std::unique_ptr<ChildProcess> child;
  const double ms = timed([&] {
    child = std::make_unique<ChildProcess>(image, std::vector<std::string>{}, "/",
                                           std::map<std::string, std::string>{},
                                           ChildStreams::output_to_errors, ChildEnvironment::whole,
                                           nullptr, ChildGroup::inherited, ChildControl::none);
  });
  child->wait({});
  return ms;
}

double spawn_ms(std::string image) {
  std::array<char*, 2> arguments = {image.data(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, 2, 1);
  pid_t child = 0;
  const double ms = timed([&] {
    must(posix_spawn(&child, image.c_str(), &files, nullptr, arguments.data(), environ) == 0,
         "posix_spawn");
  });
  posix_spawn_file_actions_destroy(&files);
  waitpid(child, nullptr, 0);
  return ms;
}

json measure(const std::vector<std::string>& words) {
  must(words.size() >= 3,
       "usage: tavro-measure-start chain ROUNDS BOOTSTRAP BARE LAUNCHER | child ROUNDS IMAGE");
  const int rounds = std::stoi(words[1]);
  if (words[0] == "child")
    return in_turn(
        rounds, [&] { return child_ms(words[2]); }, [&] { return spawn_ms(words[2]); });
  const auto &bootstrap = words.at(2), &bare = words.at(3), &launcher = words.at(4);
  return in_turn(
      rounds, [&] { return chain_ms({bootstrap}); },
      [&] {
        return chain_ms({bare, "--then", launcher});
      });
}

}  // namespace

int main(int argc, char** argv) try {
  std::cout << measure({argv + 1, argv + argc}) << "\n";
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
