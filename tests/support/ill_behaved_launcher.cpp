// A launcher, or a helper of one, that does what a test tells it: TAVRO_TEST_LAUNCHER holds its
// steps, each a word, some with ":value". TAVRO_TEST_LAUNCHER_2_0_0 speaks to the launcher of
// build 2.0.0 alone. It ends with status 0 after the last step, and with 1 and "code: message" on
// standard error when one fails. An image named "...-gui" is the windowed one.

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "launcher/launcher_helper.h"
#include "launcher/launcher_runtime.h"
#include "launcher/launcher_startup.h"
#include "launcher/launcher_store.h"
#include "launcher/runtime_image.h"
#include "maintenance/maintenance_runtime.h"
#include "platform/files/durable_files.h"
#include "platform/host/native_platform.h"
#include "platform/process/interrupt.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

std::string variable(const std::string& name) { return process_environment(name, 8192); }

class Launcher {
 public:
  Launcher(int argc, char** argv) : arguments_(process_arguments(argc, argv)) {
    const auto data = std::find(arguments_.begin(), arguments_.end(), "--data-dir");
    const auto version = managed_version(current_executable_path());
    root_ = version ? version->root : fs::path(variable(launcher_root_environment));
    if (root_.empty()) root_ = fs::current_path();
    if (data != arguments_.end() && data + 1 != arguments_.end()) root_ = data[1];
    if (version) {
      const auto stored =
          version->root / "launcher/manifests" / (version->manifest_sha256 + ".json");
      build_ = json::parse(read_file(stored, 524288)).at("build_id");
    }
    attempt_["nonce"] = variable(launcher_nonce_environment);
  }

  void run() {
    auto own = "TAVRO_TEST_LAUNCHER_" + build_;
    std::replace_if(
        own.begin(), own.end(), [](char c) { return c == '.' || c == '-'; }, '_');
    const auto script = variable(own);
    std::istringstream words(script.empty() ? variable("TAVRO_TEST_LAUNCHER") : script);
    for (std::string word; words >> word;) {
      const auto colon = word.find(':');
      step(word.substr(0, colon), colon == word.npos ? "" : word.substr(colon + 1));
    }
  }

 private:
  static void say(const std::string& text) { std::cout << text << std::endl; }

  static void drop_attempt() {
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
      std::error_code closed;
      const auto target = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), closed);
      if (target.native().find("/leases/attempts/") != std::string::npos) close(descriptor);
    }
  }

  /// Until the parent asks for an end, or until a signal ends the process.
  void wait() const {
    while (!interrupt_ || !interrupt_->requested())
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  void step(const std::string& word, const std::string& value) {
    // What a launcher does. A value of `attach` is another interface than the image's, that of
    // `build` another build.
    if (word == "build") return void(build_ = value);
    if (word == "attach") {
      runtime_ = LauncherRuntime::attach(build_, value.empty() ? interface_ : value, root_);
      return say(runtime_ ? "attached" : "unmanaged");
    }
    if (word == "helper") {
      helper_ = LauncherHelperRuntime::attach(build_, value);
      return say(helper_ ? "attached" : "unmanaged");
    }
    if (word == "ready") {
      const auto helper = MaintenanceRuntime::attach("", "");
      if (helper) helper->report_ready(), helper->report_ready();
      return say(helper ? "told" : "nobody waits");
    }
    if (word == "interrupt") return void(interrupt_ = std::make_unique<ConsoleInterrupt>(true));
    if (word == "health") return report_launcher_health(runtime_.get());
    if (word == "confirm") return confirm_launcher_start(root_);
    if (word == "stop") return void(kill(getpid(), SIGSTOP));
    if (word == "wait") return wait();
    if (word == "exit") _exit(std::stoi(value));
    // What it should not.
    if (word == "long-health")
      return atomic_create(LauncherStore(root_).health_path(attempt_),
                           std::string(launcher_proof_bytes + 1, ' '));
    if (word == "drop-lease") return drop_attempt();
    if (word == "detach") return runtime_.reset(), helper_.reset();
    if (word == "ignore-term") return void(std::signal(SIGTERM, SIG_IGN));
    if (word == "leave") return fork() == 0 ? void() : _exit(0);
    // What it tells on standard output.
    if (word == "say") return say(value);
    if (word == "who") return say(build_);
    if (word == "arguments") return say(json(arguments_).dump());
    if (word == "environment")
      return std::system("env | grep '^TAVRO_LAUNCHER_'") == 0 ? say("authority passed on")
                                                               : void();
    if (word == "descriptors")
      return require(std::system("ls -l /proc/$PPID/fd") == 0, "usage", "No list of descriptors");
    fail("usage", "Unknown step " + word);
  }

  std::vector<std::string> arguments_;
  std::string interface_ = current_executable_path().string().ends_with("-gui") ? "gui" : "cli";
  std::string build_ = "1.0.0";
  fs::path root_;
  json attempt_;
  std::unique_ptr<ConsoleInterrupt> interrupt_;
  std::unique_ptr<LauncherRuntime> runtime_;
  std::unique_ptr<LauncherHelperRuntime> helper_;
};

}  // namespace
}  // namespace tavro

int main(int argc, char** argv) {
  try {
    tavro::initialize_client_runtime();
    tavro::Launcher(argc, argv).run();
    return 0;
  } catch (const tavro::Error& error) {
    std::cerr << error.code << ": " << error.what() << std::endl;
  } catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
  }
  return 1;
}
