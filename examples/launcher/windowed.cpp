// The window of a launcher, less the window: the bootstrap starts it as `--data-dir DIR
// ARGUMENT...` and passes the arguments on unread, such as `--launch GAME` of a shortcut.

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <thread>

#include "console/cli_entry.h"
#include "console/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "launcher/launcher_runtime.h"
#include "maintenance/maintenance_handoff.h"
#include "updates.h"

namespace {

using namespace tavro;

/// What a menu's "Uninstall" does: the helper's window comes up, and this one closes.
int hand_over(const std::filesystem::path& root) {
  MaintenanceHandoff handoff;
  handoff.start(root, EXAMPLE_BUILD);
  auto view = handoff.view();
  // Here a window goes on painting.
  for (; view.at("phase") == "starting"; view = handoff.view())
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const auto& problem = view.at("problem");
  if (!problem.is_null()) throw Error(problem.at("code"), problem.at("message"));
  std::cerr << "The uninstall is " << view.at("phase").get<std::string>() << "." << std::endl;
  return 0;
}

int run(std::vector<std::string> arguments) {
  const auto root = path_from_utf8(cli_option(arguments, "--data-dir", ""));
  require(!root.empty(), "usage", "The bootstrap starts a launcher, with --data-dir");
  const auto runtime = LauncherRuntime::attach(EXAMPLE_BUILD, "gui", root);
  // Here a real launcher opens its window, and goes on once it is on the screen.
  report_launcher_health(runtime.get());
  confirm_launcher_start(root);
  if (arguments == std::vector<std::string>{"--uninstall"})
    return hand_over(std::filesystem::absolute(root));
  const auto game = cli_option(arguments, "--launch", "");
  std::cerr << "The window of launcher " EXAMPLE_BUILD " would be up now"
            << (game.empty() ? "." : ", and would start " + game + ".") << std::endl;
  const bool asked = std::find(arguments.begin(), arguments.end(), "--check") != arguments.end();
  const auto news = asked ? example::check_for_update(root) : std::string();
  if (!news.empty()) std::cerr << news << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return run_reported([&] {
    initialize_client_runtime();
    return run(process_arguments(argc, argv));
  });
}
