#include "system/nginx.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "domain/unique_fd.h"
#include "system/installer_program.h"

namespace tavro {

Nginx::Nginx(const std::filesystem::path& work, const std::filesystem::path& served,
             const std::string& mode, const std::vector<std::string>& directives)
    : work_(work) {
  const std::string image = program("tavro-serve");
  std::vector<std::string> words = {image, mode, work, served};
  words.insert(words.end(), directives.begin(), directives.end());
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, writer.get(), 1);
  const int failed = posix_spawn(&pid_, image.c_str(), &files, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  writer.reset();
  // One line, written once the port takes connections.
  for (char byte = 0; ::read(reader.get(), &byte, 1) == 1 && byte != '\n';) origin_ += byte;
  if (failed != 0 || origin_.empty()) throw std::runtime_error("cannot start nginx");
}

Nginx::~Nginx() {
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

}  // namespace tavro
