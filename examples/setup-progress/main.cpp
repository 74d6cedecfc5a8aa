// A front end of the installer that never blocks: the commands of tavro-install with a progress
// bar. It shows how `NativeSetup` is used; a window does the same, with its event loop for the
// wait.

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <iostream>
#include <mutex>

#include "console/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "platform/host/native_platform.h"
#include "platform/process/interrupt.h"
#include "progress_bar.h"
#include "setup/native_setup.h"
#include "setup/setup_console.h"
#include "setup/setup_dispatch.h"

namespace {

using namespace tavro;

/// Long enough not to flicker, short enough to look alive; Ctrl+C is noticed as fast.
constexpr std::chrono::milliseconds repaint_interval{50};

/// Runs the command to its end and paints meanwhile.
NativeSetup::View run_painted(SetupCommand command, const ConsoleInterrupt& interrupt) {
  std::mutex mutex;
  std::condition_variable changed;
  // After what its wakeup uses, so that it ends before.
  NativeSetup setup(TAVRO_INITIAL_PACKAGE_SHA256);
  // Called for every block, on the worker: it only passes the end on, the painting has its own
  // time.
  setup.set_wakeup([&] {
    if (setup.view().running) return;
    const std::lock_guard lock(mutex);
    changed.notify_one();
  });
  example::ProgressBar bar;
  setup.start(std::move(command));
  std::unique_lock lock(mutex);
  while (!changed.wait_for(lock, repaint_interval, [&] { return !setup.view().running; })) {
    if (interrupt.requested()) setup.cancel();
    bar.show(setup.view());
  }
  return setup.view();
}

int run(const std::vector<std::string>& arguments, ReportForm& form) {
  initialize_client_runtime();
  const ConsoleInterrupt interrupt(false);
  auto command = parse_setup_command(arguments, user_data_root());
  if (command.json) form = ReportForm::json_line;
  if (command.help) {
    std::cout << setup_usage("example-setup-progress", true) << std::flush;
    return 0;
  }
  require_complete_native_install_image(current_executable_path());
  // Before a thread runs: the product's name belongs to the whole process.
  select_brand_and_folder(command, TAVRO_INITIAL_PACKAGE_SHA256);
  const auto end = run_painted(command, interrupt);
  if (!end.error_code.empty()) throw Error(end.error_code, end.error_message);
  std::cout << (command.json ? compact_line(end.result) : setup_summary(command, end.result))
            << std::endl;
  return 0;
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
