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
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include "app/launcher_helper.h"
#include "app/launcher_runtime.h"
#include "app/launcher_startup.h"
#include "app/launcher_store.h"
#include "app/maintenance_runtime.h"
#include "app/runtime_image.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files.h"
#include "platform/interrupt.h"
#include "platform/native_platform.h"

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
    attempt_["reference"] = {{"manifest_sha256", variable(launcher_manifest_environment)},
                             {"build_id", variable(launcher_build_environment)}};
  }

  void run() {
    auto own = "TAVRO_TEST_LAUNCHER_" + build_;
    std::replace_if(
        own.begin(), own.end(), [](char c) { return c == '.' || c == '-'; }, '_');
    const auto script = variable(own);
    std::istringstream words(script.empty() ? variable("TAVRO_TEST_LAUNCHER") : script);
    for (std::string word; words >> word;) {
      const auto colon = word.find(':');
      const auto step = steps_.find(word.substr(0, colon));
      require(step != steps_.end(), "usage", "Unknown step " + word);
      step->second(colon == word.npos ? "" : word.substr(colon + 1));
    }
  }

 private:
  static void say(const std::string& text) { std::cout << text << std::endl; }

  /// Health with another process's number, or of too many bytes.
  void forge(bool too_long) {
    const LauncherStore store(root_);
    const auto manifest = store.manifest(attempt_.at("reference"));
    const auto pid = static_cast<unsigned long long>(getpid()) + (too_long ? 0 : 1);
    auto text = manifest.startup_health(attempt_, pid, interface_, true).dump();
    if (too_long) text.resize(launcher_proof_bytes + 1, ' ');
    atomic_create(store.health_path(attempt_), text);
  }

  /// Every open descriptor and what it is.
  template <typename Visit>
  static void each_descriptor(Visit&& visit) {
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
      std::error_code closed;
      const auto target = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), closed);
      if (!closed) visit(descriptor, target.string());
    }
  }

  static void drop_attempt() {
    each_descriptor([](int descriptor, const std::string& target) {
      if (target.find("/leases/attempts/") != target.npos) close(descriptor);
    });
  }

  /// Until the parent asks for an end, or until a signal ends the process.
  void wait() const {
    while (!interrupt_ || !interrupt_->requested())
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  std::vector<std::string> arguments_;
  std::string interface_ = current_executable_path().string().ends_with("-gui") ? "gui" : "cli";
  std::string build_ = "1.0.0";
  fs::path root_;
  json attempt_;
  std::unique_ptr<ConsoleInterrupt> interrupt_;
  std::unique_ptr<LauncherRuntime> runtime_;
  std::unique_ptr<LauncherHelperRuntime> helper_;

  const std::map<std::string, std::function<void(const std::string&)>> steps_ = {
      // What a launcher does. A value of `attach` is another interface than the image's, that of
      // `build` another build.
      {"build", [this](const std::string& value) { build_ = value; }},
      {"attach",
       [this](const std::string& value) {
         runtime_ = LauncherRuntime::attach(build_, value.empty() ? interface_ : value, root_);
         say(runtime_ ? "attached" : "unmanaged");
       }},
      {"helper",
       [this](const std::string& role) {
         helper_ = LauncherHelperRuntime::attach(build_, role);
         say(helper_ ? "attached" : "unmanaged");
       }},
      {"ready",
       [](const std::string&) {
         const auto helper = MaintenanceRuntime::attach("", "");
         if (helper) helper->report_ready(), helper->report_ready();
         say(helper ? "told" : "nobody waits");
       }},
      {"interrupt",
       [this](const std::string&) { interrupt_ = std::make_unique<ConsoleInterrupt>(true); }},
      {"health", [this](const std::string&) { report_launcher_health(runtime_.get()); }},
      {"confirm", [this](const std::string&) { confirm_launcher_start(root_); }},
      {"stop", [](const std::string&) { kill(getpid(), SIGSTOP); }},
      {"wait", [this](const std::string&) { wait(); }},
      {"exit", [](const std::string& status) { _exit(std::stoi(status)); }},
      // What it should not.
      {"wrong-pid", [this](const std::string&) { forge(false); }},
      {"long-health", [this](const std::string&) { forge(true); }},
      {"drop-lease", [](const std::string&) { drop_attempt(); }},
      {"detach", [this](const std::string&) { runtime_.reset(), helper_.reset(); }},
      {"ignore-term", [](const std::string&) { (void)std::signal(SIGTERM, SIG_IGN); }},
      {"leave",
       [](const std::string&) {
         if (fork() != 0) _exit(0);
       }},
      // What it tells on standard output.
      {"say", [](const std::string& text) { say(text); }},
      {"who", [this](const std::string&) { say(build_); }},
      {"arguments", [this](const std::string&) { say(json(arguments_).dump()); }},
      {"environment",
       [](const std::string&) {
         if (std::system("env | grep '^TAVRO_LAUNCHER_'") == 0) say("authority passed on");
       }},
      {"descriptors",
       [](const std::string&) {
         each_descriptor([](int descriptor, const std::string& target) {
           say(std::to_string(descriptor) + " " + target);
         });
       }},
  };
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
