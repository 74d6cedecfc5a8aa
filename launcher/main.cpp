// The console of the launcher. The bootstrap starts it as `--data-dir DIR [--json] COMMAND...`; it
// has read the same line itself, and has answered help and maintenance commands.

#include <nlohmann/json.hpp>

#include "command_table.h"
#include "console/cli_entry.h"
#include "console/console_report.h"
#include "console/stop_signals.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/installed_brand.h"
#include "launcher/launcher_runtime.h"
#include "maintenance/maintenance_control.h"
#include "platform/process/interrupt.h"
#include "report.h"

namespace {

using namespace tavro;

/// How failures are told, as far as the line has been read.
struct Telling {
  bool as_json = false;
  std::string subject;
};

/// What maintenance answers by itself, before the launcher attaches: whoever removes a client is no
/// longer one of its programs.
void hand_over_maintenance(const CliEntry& line) {
  auto words = line.args;
  if (line.json) words.emplace_back("--json");
  if (!line.help && !maintenance_arguments(words, line.data_dir).empty())
    run_cli_maintenance(std::filesystem::absolute(line.data_dir), words, LAUNCHER_BUILD, {});
}

int answer(const CliEntry& line, const std::function<bool()>& stop, Telling& telling) {
  if (line.help) {
    write_text(cli_help());
    return 0;
  }
  const json control = native_maintenance_control(line.data_dir, line.args, stop);
  if (!control.is_null()) {
    write_line(compact_line(control));
    return 0;
  }
  program::Context context(line.data_dir, LAUNCHER_BUILD, line.json, stop);
  const CliLine words = read_cli_command(line.args);
  if (!words.operands.empty()) telling.subject = words.operands.front();
  program::Answer result = program::run_command(context, line.args);
  context.clear_progress();
  return program::tell(std::move(result), line.json);
}

int run(int argc, char** argv, Telling& telling) {
  hold_standard_streams();
  initialize_client_runtime();
  const CliEntry line = parse_cli_entry(process_arguments(argc, argv), ".", &telling.as_json);
  require(line.data_dir_set, "usage", "The bootstrap starts a launcher, with --data-dir");
  hand_over_maintenance(line);
  // Before anything else is done: from here on the running version is protected and proved.
  const auto runtime = LauncherRuntime::attach(LAUNCHER_BUILD, "cli", line.data_dir);
  // A bootstrap believes no console that cannot be asked to stop.
  const ConsoleInterrupt interrupt(true);
  const StopSignals signals;
  use_installed_brand(line.data_dir);
  // All is up. Whatever may still fail from here on fails the command, not the launcher.
  report_launcher_health(runtime.get());
  // A version that works in a console deserves another try of its window.
  confirm_launcher_start(line.data_dir);
  return answer(
      line, [&] { return interrupt.requested() || StopSignals::requested(); }, telling);
}

}  // namespace

int main(int argc, char** argv) {
  Telling telling;
  try {
    return run(argc, argv, telling);
  } catch (const std::exception& failure) {
    return program::tell_failure(failure, telling.as_json, telling.subject);
  }
}
