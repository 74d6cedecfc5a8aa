#include "system/installer_program.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <stdexcept>

#include "domain/crypto.h"
#include "domain/input.h"

namespace tavro {
namespace {

constexpr std::size_t output_bytes = 1 << 20;

}  // namespace

std::filesystem::path program(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string Ending::code() const {
  const json line = json::parse(output, nullptr, false);
  return line.is_object() && line.contains("problem") ? line["problem"].value("code", "") : "";
}

Started::Started(const std::filesystem::path& scratch, const std::filesystem::path& image,
                 const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment)
    : output_(scratch / ("out-" + random_id())), errors_(scratch / ("err-" + random_id())) {
  std::vector<std::string> texts = {"HOME=" + scratch.string(), "PATH=/usr/bin:/bin",
                                    "XDG_DATA_HOME=" + (scratch / "share").string(),
                                    "ASAN_OPTIONS=verify_asan_link_order=0"};
  for (const auto& [key, value] : environment) texts.push_back(key + "=" + value);
  std::vector<char*> variables, words = {const_cast<char*>(image.c_str())};
  for (auto& text : texts) variables.push_back(text.data());
  for (const auto& word : arguments) words.push_back(const_cast<char*>(word.c_str()));
  variables.push_back(nullptr);
  words.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, output_.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&files, 2, errors_.c_str(), O_WRONLY | O_CREAT, 0600);
  const int failed =
      posix_spawn(&pid_, image.c_str(), &files, nullptr, words.data(), variables.data());
  posix_spawn_file_actions_destroy(&files);
  if (failed != 0) throw std::runtime_error("cannot start " + image.string());
}

void Started::send(int signal) const { kill(pid_, signal); }

bool Started::wait_stopped() {
  waitpid(pid_, &wait_status_, WUNTRACED);
  return WIFSTOPPED(wait_status_);
}

Ending Started::wait() {
  if (wait_status_ == 0 || WIFSTOPPED(wait_status_)) waitpid(pid_, &wait_status_, 0);
  const bool exited = WIFEXITED(wait_status_);
  return {exited ? WEXITSTATUS(wait_status_) : 128 + WTERMSIG(wait_status_),
          read_file(output_, output_bytes), read_file(errors_, output_bytes)};
}

InstallerWorld::InstallerWorld(const SealedPackageOptions& options)
    : package(folder.path(), options), seal(package.seal), root(folder.path() / "data") {}

Started InstallerWorld::start(const std::vector<std::string>& arguments,
                              const std::map<std::string, std::string>& environment) {
  auto variables = environment;
  variables["TAVRO_TEST_SEAL"] = seal;
  return Started(folder.path(), program("tavro-install-sealed-at-start"), arguments, variables);
}

Ending InstallerWorld::run(std::vector<std::string> arguments,
                           const std::map<std::string, std::string>& environment) {
  arguments.insert(arguments.end(), {"--json", "--data-dir", root.string()});
  return start(arguments, environment).wait();
}

json InstallerWorld::status() { return json::parse(run({"status"}).output); }

std::map<std::string, std::string> InstallerWorld::struck(int signal, long call) const {
  return {{"LD_PRELOAD", program("libsignal_at_call.so")},
          {"TAVRO_TEST_SIGNAL", std::to_string(signal)},
          {"TAVRO_TEST_CALL", std::to_string(call)},
          {"TAVRO_TEST_COUNT", folder.path() / "calls"}};
}

long InstallerWorld::calls() const { return std::stol(read_file(folder.path() / "calls", 20)); }

}  // namespace tavro
