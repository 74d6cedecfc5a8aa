// The window of a launcher, less the window: the bootstrap starts it as `--data-dir DIR
// ARGUMENT...` and passes the arguments on unread, such as `--launch GAME` of a shortcut.

#include <iostream>

#include "app/cli_entry.h"
#include "app/console_report.h"
#include "app/launcher_runtime.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"

namespace {

using namespace tavro;

int run(std::vector<std::string> arguments) {
  const auto root = path_from_utf8(cli_option(arguments, "--data-dir", ""));
  require(!root.empty(), "usage", "The bootstrap starts a launcher, with --data-dir");
  const auto runtime = LauncherRuntime::attach(EXAMPLE_BUILD, "gui", root);
  // Here a real launcher opens its window, and goes on once it is on the screen.
  report_launcher_health(runtime.get());
  confirm_launcher_start(root);
  const auto game = cli_option(arguments, "--launch", "");
  std::cerr << "The window of launcher " EXAMPLE_BUILD " would be up now"
            << (game.empty() ? "." : ", and would start " + game + ".") << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return run_reported([&] {
    initialize_client_runtime();
    return run(process_arguments(argc, argv));
  });
}
