#include "support/launched.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "platform/archives/snapshot.h"
#include "platform/host/native_platform.h"
#include "support/sealed_package.h"
#include "support/snapshot_archive.h"

namespace tavro {

Launched::Launched(const std::filesystem::path& image, const std::string& steps,
                   const Environment& environment, const std::vector<std::string>& arguments)
    : Launched([&] {
        setenv("TAVRO_TEST_LAUNCHER", steps.c_str(), 1);
        return become(image, environment, arguments);
      }) {}

int Launched::become(const std::filesystem::path& image, const Environment& environment,
                     const std::vector<std::string>& arguments) {
  std::vector<char*> words = {const_cast<char*>(image.c_str())};
  for (const auto& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  for (const auto& [key, value] : environment) setenv(key.c_str(), value.c_str(), 1);
  return execv(image.c_str(), words.data());
}

Launched::Launched(const std::function<int()>& body) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  id_ = fork();
  if (id_ == 0) {
    for (const int stream : {1, 2}) dup2(ends[1], stream);
    _exit(body());
  }
  close(ends[1]);
  output_ = fdopen(ends[0], "r");
}

Launched::~Launched() {
  end();
  (void)std::fclose(output_);
}

std::string Launched::line() {
  std::array<char, 4096> text{};
  const std::string line = std::fgets(text.data(), text.size(), output_) ? text.data() : "";
  return line.substr(0, line.find('\n'));
}

std::string Launched::rest() {
  std::string all;
  for (int next = 0; (next = std::fgetc(output_)) != EOF;) all += static_cast<char>(next);
  return all;
}

int Launched::status() {
  int status = 0;
  waitpid(std::exchange(id_, 0), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Launched::end() {
  if (id_ > 0) kill(id_, SIGKILL), waitpid(id_, nullptr, 0);
  id_ = 0;
}

json stage_version(const LauncherStore& store, const std::filesystem::path& scratch,
                   const std::string& build) {
  SealedPackageOptions options;
  options.launcher_build = build;
  options.launcher_image = options.launcher_gui_image = options.maintenance_image =
      current_executable_path().parent_path() / "ill-behaved-launcher";
  const auto made = scratch / random_id();
  std::filesystem::create_directory(made);
  const SealedPackage package(made, options);
  const auto text = read_file(package.path("launcher_manifest"), 524288);
  const json reference = {{"manifest_sha256", digest(text, "sha256")}, {"build_id", build}};
  const auto payload = store.payload(reference);
  write_bytes(store.directory() / "manifests" / (payload.filename().string() + ".json"), text);
  extract_snapshot(store.manifest(reference), package.path("launcher_archive"), payload);
  auto record = store.load();
  record["candidate"] = reference;
  store.save(record);
  return reference;
}

}  // namespace tavro
