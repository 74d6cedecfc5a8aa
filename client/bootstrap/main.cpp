#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <system_error>

#include "console/console_report.h"
#include "console/stop_signals.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "installation/installed_brand.h"
#include "launcher/runtime_image.h"
#include "platform/host/native_platform.h"
#include "self_update/bootstrap_update.h"
#include "start/bootstrap_answers.h"
#include "start/launcher_bootstrap.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds startup_limit{10000};

/// The bootstrap's own options, which come first, and what is left for the launcher.
struct BootstrapOptions {
  std::optional<fs::path> data_dir;
  bool windowed = false;
  std::vector<std::string> forwarded;
};

BootstrapOptions read_options(const std::vector<std::string>& arguments) {
  BootstrapOptions options;
  auto next = arguments.begin();
  for (; next != arguments.end(); ++next) {
    if (*next == "--gui" && !options.windowed) {
      options.windowed = true;
    } else if (*next == "--data-dir") {
      tavro::require(!options.data_dir, "usage", "Duplicate global option: --data-dir");
      tavro::require(++next != arguments.end() && !next->empty(), "usage",
                     "--data-dir needs a nonempty path");
      options.data_dir = tavro::path_from_utf8(*next);
    } else {
      break;
    }
  }
  options.forwarded.assign(next, arguments.end());
  return options;
}

fs::path served_folder(const fs::path& image, const std::optional<fs::path>& chosen) {
  const auto installed = tavro::installed_data_root(image);
  if (!installed) return tavro::data_folder(chosen ? *chosen : tavro::user_data_root());
  std::error_code missing;
  tavro::require(!chosen || fs::equivalent(*chosen, *installed, missing), "usage", [&] {
    return "This bootstrap serves " + tavro::path_utf8(*installed) + " and no other data folder";
  });
  return *installed;
}

/// An image that lies in no data folder, as one behind a link does, tells which one it looked into.
tavro::Error with_folder(const tavro::Error& failure, const fs::path& root) {
  auto commands = failure.next_commands;
  commands.push_back(
      "Start the bootstrap of a data folder, which no link may lead to; this one used " +
      tavro::path_utf8(root));
  return {failure.code, failure.what(), commands};
}

int run_bootstrap(const std::vector<std::string>& arguments) {
  const auto image = tavro::current_executable_path();
  tavro::apply_pending_bootstrap_update(image);
  tavro::reject_staged_image(image);
  const auto options = read_options(arguments);
  // Before the folder is looked for: who asks for help may have none yet, and no home.
  if (!options.windowed)
    if (const auto status = tavro::answer_help(options.forwarded)) return *status;
  const auto root = served_folder(image, options.data_dir);
  tavro::use_installed_brand(root);
  auto lifetime = tavro::bootstrap_lifetime(image);
  try {
    return tavro::run_launcher_bootstrap(root, options.windowed ? "gui" : "cli", options.forwarded,
                                         startup_limit, &lifetime);
  } catch (const tavro::Error& failure) {
    if (tavro::installed_data_root(image) || failure.code != "launcher_damaged") throw;
    throw with_folder(failure, root);
  }
}

/// A window's line is opaque; a console's says how its failures are to be told.
tavro::ReportForm report_form(const std::vector<std::string>& arguments) {
  const bool windowed = std::find(arguments.begin(), arguments.end(), "--gui") != arguments.end();
  return !windowed && tavro::asks_for_json(arguments) ? tavro::ReportForm::json_line
                                                      : tavro::ReportForm::text_and_commands;
}

}  // namespace

int main(int argc, char** argv) {
  auto form = tavro::ReportForm::text_and_commands;
  try {
    tavro::hold_standard_streams();
    tavro::initialize_client_runtime();
    // Whoever starts this may ignore the end of its children; here it has to be known.
    (void)std::signal(SIGCHLD, SIG_DFL);
    const auto arguments = tavro::process_arguments(argc, argv);
    form = report_form(arguments);
    return run_bootstrap(arguments);
  } catch (const std::exception& failure) {
    return tavro::report_failure(failure, form);
  }
}
