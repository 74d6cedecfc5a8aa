// The console of a launcher. The bootstrap starts it as `--data-dir DIR [--json] COMMAND...`; it
// has read the same line itself, and has answered help and maintenance commands.

#include <nlohmann/json.hpp>

#include <iostream>

#include "console/cli_entry.h"
#include "console/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "launcher/launcher_runtime.h"
#include "launcher/launcher_status.h"
#include "launcher/launcher_store.h"
#include "maintenance/maintenance_control.h"
#include "platform/process/interrupt.h"
#include "self_update/bootstrap_update.h"
#include "updates.h"

namespace {

using namespace tavro;

/// What is running, what waits, what did not start and what to do about it, in words.
std::string status_sentence(const LauncherStore& store, const std::filesystem::path& root) {
  std::string text = "This is launcher " EXAMPLE_BUILD ".";
  const auto open = probation_sentences(store, store.record());
  if (!open.empty()) text += " " + open;
  if (const auto obstacle = bootstrap_update_obstacle(root); !obstacle.empty())
    text += " A new bootstrap waits: " + obstacle;
  else if (bootstrap_update_pending(root))
    text += " A new bootstrap is put into place at the next start.";
  if (std::filesystem::exists(root / "launcher" / "cleanup.json"))
    text += " A cleanup was cut off; run self cleanup before the next update.";
  return text;
}

int answer(const CliEntry& line, const ConsoleInterrupt& interrupt) {
  if (line.help) {
    std::cout << cli_help() << std::flush;
    return 0;
  }
  const auto control =
      native_maintenance_control(line.data_dir, line.args, [&] { return interrupt.requested(); });
  if (!control.is_null()) {
    std::cout << compact_line(control) << std::endl;
    return 0;
  }
  const auto tell = [&](const json& result, const std::string& sentence) {
    std::cout << (line.json ? compact_line(result) : sentence) << std::endl;
    return 0;
  };
  const auto is = [&](const char* verb) {
    return line.args == std::vector<std::string>{"self", verb};
  };
  const auto stop = [&] { return interrupt.requested(); };
  if (is("status")) {
    const auto store = LauncherStore::for_launch(line.data_dir);
    return tell(store->status(), status_sentence(*store, line.data_dir));
  }
  if (is("update")) {
    const auto result = example::update(line.data_dir, stop);
    return tell(result, example::update_sentence(result));
  }
  if (is("cleanup")) {
    const auto report = example::clean_up(line.data_dir, stop);
    return tell(report, example::cleanup_sentence(report));
  }
  fail("unsupported", "This example has no games; it answers the self commands");
}

int run(int argc, char** argv, bool* json_wanted) {
  initialize_client_runtime();
  const auto line = parse_cli_entry(process_arguments(argc, argv), ".", json_wanted);
  require(line.data_dir_set, "usage", "The bootstrap starts a launcher, with --data-dir");
  // Before the launcher attaches: whoever removes a client is no longer one of its programs.
  auto words = line.args;
  if (line.json) words.emplace_back("--json");
  if (!line.help && !maintenance_arguments(words, line.data_dir).empty())
    run_cli_maintenance(std::filesystem::absolute(line.data_dir), words, EXAMPLE_BUILD, {});
  // Before anything else is done: from here on the running version is protected and proved.
  const auto runtime = LauncherRuntime::attach(EXAMPLE_BUILD, "cli", line.data_dir);
  // A bootstrap believes no console that cannot be asked to stop.
  const ConsoleInterrupt interrupt(true);
  // All is up. Whatever may still fail from here on fails the command, not the launcher.
  report_launcher_health(runtime.get());
  // A version that works in a console deserves another try of its window.
  confirm_launcher_start(line.data_dir);
  return answer(line, interrupt);
}

}  // namespace

int main(int argc, char** argv) {
  bool json_wanted = false;
  try {
    return run(argc, argv, &json_wanted);
  } catch (const std::exception& failure) {
    return report_failure(failure,
                          json_wanted ? ReportForm::json_line : ReportForm::text_and_commands);
  }
}
