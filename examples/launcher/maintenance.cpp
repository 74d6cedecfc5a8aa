// The helper that removes a client while none of its other programs runs. The bootstrap becomes it,
// or starts it, as `uninstall --data-dir DIR [--remove-data] [--json]`.

#include "console/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "maintenance/maintenance_runtime.h"
#include "maintenance_helper.h"
#include "platform/process/interrupt.h"
#include "setup/setup_command.h"
#include "setup/setup_console.h"

namespace {

using namespace tavro;

int run(const std::vector<std::string>& arguments, ReportForm& form) {
  initialize_client_runtime();
  const auto runtime = MaintenanceRuntime::attach(EXAMPLE_BUILD, "maintenance");
  // Whoever started it as a child asks it to stop over a channel, whoever became it with Ctrl+C.
  const ConsoleInterrupt interrupt(true);
  const auto command = parse_setup_command(arguments, {});
  if (command.json) form = ReportForm::json_line;
  require(command.kind == SetupCommandKind::uninstall && command.data_root_chosen, "usage",
          "This helper takes uninstall --data-dir DIR [--remove-data]");
  example::require_own_client("maintenance", command.data_root).reset();
  return run_setup_console(arguments, "example-launcher-maintenance", "",
                           [&] { return interrupt.requested(); });
}

}  // namespace

int main(int argc, char** argv) {
  ReportForm form = ReportForm::text;
  try {
    return run(process_arguments(argc, argv), form);
  } catch (const std::exception& failure) {
    return report_failure(failure, form);
  }
}
