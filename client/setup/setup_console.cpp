#include "setup/setup_console.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <memory>

#include "console/console_report.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "installation/installed_brand.h"
#include "package/brand.h"
#include "package/native_package.h"
#include "platform/host/native_platform.h"
#include "setup/setup_command.h"
#include "setup/setup_dispatch.h"

namespace tavro {
namespace {

/// The default data folder; empty where the environment names none and the line needs none, since
/// it names a folder or only asks for help.
std::filesystem::path default_data_root(const std::vector<std::string>& arguments) {
  try {
    return user_data_root();
  } catch (const Error&) {
    for (const auto* word : {"--data-dir", "--help", "-h"})
      if (std::find(arguments.begin(), arguments.end(), word) != arguments.end()) return {};
    throw;
  }
}

void run_command(SetupCommand& command, bool installer, std::string_view seal,
                 const std::function<bool()>& cancelled) {
  require_complete_native_install_image(current_executable_path());
  require(installer || !installs(command.kind), "usage",
          "Use the Tavro installer to install or repair Tavro");
  select_brand_and_folder(command, seal);
  const NativeSetupCallbacks callbacks = console_callbacks(command.json, cancelled);
  const json result = run_setup_command(command, seal, callbacks);
  if (!command.json)
    for (const auto& line : setup_details(result)) std::cerr << line << std::endl;
  write_line(command.json ? compact_line(result) : setup_summary(command, result));
}

const char* phase_line(std::string_view phase) {
  if (phase == "verifying") return "Verifying…";
  if (phase == "installing") return "Installing…";
  return "Removing…";
}

}  // namespace

int run_setup_console(const std::vector<std::string>& arguments, std::string_view program,
                      std::string_view seal, const std::function<bool()>& cancelled) {
  ReportForm form = ReportForm::text_and_commands;
  try {
    const bool installer = program == "tavro-install";
    SetupCommand command = parse_setup_command(arguments, default_data_root(arguments));
    if (command.json) form = ReportForm::json_line;
    if (command.help)
      write_text(setup_usage(program, installer));
    else
      run_command(command, installer, seal, cancelled);
    return 0;
  } catch (const std::exception& failure) {
    return report_failure(failure, form);
  }
}

void select_brand_and_folder(SetupCommand& command, std::string_view seal) {
  if (installs(command.kind) && command.package.empty())
    command.package = adjacent_initial_package(current_executable_path());
  if (!installs(command.kind) || command.package.empty()) {
    use_installed_brand(command.data_root);
    return;
  }
  const std::optional<Brand> brand = package_brand(command.package, seal);
  if (brand) set_product_name(brand->name);
  if (!command.data_root_chosen) command.data_root = default_install_folder(brand);
}

NativeSetupCallbacks console_callbacks(bool as_json, std::function<bool()> cancelled) {
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = std::move(cancelled);
  if (as_json) return callbacks;
  callbacks.progress = [last = std::make_shared<std::string>()](std::string_view phase,
                                                                std::uint64_t, std::uint64_t) {
    if (phase == *last) return;
    *last = phase;
    std::cerr << phase_line(phase) << std::endl;
  };
  return callbacks;
}

std::filesystem::path macos_installer_package(const std::filesystem::path& executable) {
  const std::filesystem::path folder = executable.parent_path();
  const std::filesystem::path contents = folder.parent_path();
  const bool in_application = executable.filename() == "tavro-install-gui" &&
                              folder.filename() == "MacOS" && contents.filename() == "Contents" &&
                              contents.parent_path().filename() == "TavroInstaller.app";
  return in_application ? contents / "Resources" / "initial-package" : std::filesystem::path();
}

std::filesystem::path adjacent_initial_package(const std::filesystem::path& executable) {
  const std::filesystem::path package = macos_installer_package(executable);
  std::error_code ignored;
  const bool found = !package.empty() && std::filesystem::is_directory(package, ignored);
  return found ? package : std::filesystem::path();
}

std::filesystem::path default_install_folder(const std::optional<Brand>& brand) {
  const std::filesystem::path root = user_data_root();
  return brand ? root.parent_path() / path_from_utf8(brand->name) : root;
}

}  // namespace tavro
