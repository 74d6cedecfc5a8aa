// The helper that asks in a window of its own whether the client shall go, less the window. A
// windowed launcher starts it as `--data-dir DIR` and closes as soon as it is up.

#include <nlohmann/json.hpp>

#include <fstream>
#include <iostream>
#include <thread>

#include "console/cli_entry.h"
#include "console/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/installed_brand.h"
#include "maintenance/maintenance_runtime.h"
#include "maintenance_helper.h"
#include "setup/native_setup.h"
#include "setup/setup_dispatch.h"

namespace {

using namespace tavro;

/// The window's buttons: a line of standard input, or of the file that the environment names, since
/// what a program starts has no input of its own. Only "yes" is one.
bool user_agrees() {
  const auto name = process_environment("EXAMPLE_WINDOW_INPUT", 4096);
  std::ifstream file(name);
  std::string answer;
  std::getline(name.empty() ? std::cin : file, answer);
  return answer == "yes";
}

int remove_client(const std::filesystem::path& root) {
  SetupCommand command;
  command.kind = SetupCommandKind::uninstall;
  command.data_root = root;
  NativeSetup setup("");
  setup.start(command);
  // Here a window goes on painting, and offers to cancel while nothing has been removed.
  while (setup.view().running) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto end = setup.view();
  if (end.result.is_null()) throw Error(end.error_code, end.error_message);
  std::cerr << setup_summary(command, end.result) << std::endl;
  return 0;
}

int run(std::vector<std::string> arguments) {
  initialize_client_runtime();
  const auto runtime = MaintenanceRuntime::attach(EXAMPLE_BUILD, "maintenance-gui");
  const bool yes = cli_flag(arguments, "--yes");
  const auto root = path_from_utf8(cli_option(arguments, "--data-dir", ""));
  require(arguments.empty() && !root.empty(), "usage", "This helper takes --data-dir DIR [--yes]");
  auto lease = example::require_own_client("maintenance-gui", root);
  use_installed_brand(root);
  std::cerr << branded("Remove Tavro from ") << path_utf8(root) << "? Say yes." << std::endl;
  // Only now the launcher may close: the user sees where to go on.
  if (runtime) runtime->report_ready();
  if (!yes && !user_agrees()) {
    std::cerr << "Nothing was removed." << std::endl;
    return 0;
  }
  lease.reset();
  return remove_client(root);
}

}  // namespace

int main(int argc, char** argv) {
  return run_reported([&] { return run(process_arguments(argc, argv)); });
}
