#include "setup/setup_dispatch.h"

#include <nlohmann/json.hpp>

#include <chrono>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "setup/native_install.h"
#include "setup/native_uninstall.h"

namespace tavro {
namespace {

/// How long an uninstall gives the user to close Tavro and its games.
constexpr std::chrono::milliseconds closing_time{15000};

json install_document(const SetupCommand& command, std::string_view seal,
                      const NativeSetupCallbacks& callbacks) {
  require(!command.package.empty(), "usage", "Choose the initial package with --package DIR");
  NativeInstallRequest request;
  request.package = command.package;
  request.data_root = command.data_root;
  request.repair = command.kind == SetupCommandKind::repair;
  request.create_shortcut = true;
  return NativeInstaller::install(request, seal, callbacks).to_json();
}

json uninstall_document(const SetupCommand& command, const NativeSetupCallbacks& callbacks) {
  NativeUninstallRequest request;
  request.data_root = command.data_root;
  request.remove_data = command.remove_data;
  request.timeout = closing_time;
  return NativeInstaller::uninstall(request, callbacks).to_json();
}

json created_document(const SetupCommand& command) {
  const auto made = NativeInstaller::make_shortcut(command.data_root, command.game, {}, {});
  json document = {{"schema_version", 1}, {"created", path_utf8(made.path)}};
  // Only told where nothing was made.
  if (!made.created) document["existing"] = true;
  return document;
}

json removed_document(const SetupCommand& command) {
  const ShortcutRemoval removal = NativeInstaller::remove_shortcuts(command.data_root);
  return {{"schema_version", 1},
          {"removed", path_array(removal.removed)},
          {"changed", path_array(removal.changed)}};
}

// What follows reads documents of this process's own making.

std::string text(const json& result, const char* key) { return result.at(key).get<std::string>(); }

bool flag(const json& result, const char* key) { return result.at(key).get<bool>(); }

std::string install_sentence(const json& result) {
  const bool repaired = flag(result, "repaired");
  std::string sentence = branded(repaired ? "Repaired Tavro in " : "Installed Tavro in ");
  sentence += text(result, "data_root") + ".";
  if (repaired && result.at("replaced").empty() && !result.contains("mended"))
    sentence += " Everything was already intact.";
  if (!result.at("shortcut_problem").is_null())
    sentence += " The shortcut could not be created: " + text(result, "shortcut_problem");
  return sentence;
}

std::string installed_sentence(const json& result) {
  const std::string launcher = text(result, "launcher_build");
  std::string sentence = branded("Tavro is installed in ") + text(result, "data_root");
  sentence += " (bootstrap " + text(result, "bootstrap_build");
  sentence += launcher.empty() ? ", launcher not started yet)." : ", launcher " + launcher + ").";
  if (flag(result, "bootstrap_update_pending"))
    sentence += branded(" A Tavro update is applied on the next start.");
  if (result.contains("bootstrap_update_problem"))
    sentence += " But " + text(result, "bootstrap_update_problem");
  return sentence;
}

std::string status_sentence(const json& result) {
  const std::string root = text(result, "data_root");
  if (flag(result, "incomplete"))
    return branded("Tavro setup did not finish in ") + root + "; run repair.";
  if (flag(result, "installed")) return installed_sentence(result);
  return branded("Tavro is not installed in ") + root + ".";
}

std::string uninstall_sentence(const json& result) {
  std::string sentence = branded("Removed Tavro from ") + text(result, "data_root") + ".";
  if (!result.at("kept").empty()) sentence += " Saves and settings were kept.";
  if (!result.at("changed_shortcuts").empty()) sentence += " Changed shortcuts were left in place.";
  return sentence;
}

void add_details(std::vector<std::string>& lines, const json& result, const char* key,
                 const std::string& start, const std::string& end) {
  const auto told = result.find(key);
  if (told == result.end()) return;
  for (const auto& detail : *told) lines.push_back(start + detail.get<std::string>() + end);
}

}  // namespace

std::vector<std::string> setup_details(const json& result) {
  std::vector<std::string> lines;
  add_details(lines, result, "mended", "Mended: ", "");
  add_details(lines, result, "problems", "Damaged: ", "; run repair");
  add_details(lines, result, "changed", "Left in place: ", "");
  add_details(lines, result, "changed_shortcuts", "Left in place: ", "");
  return lines;
}

json run_setup_command(const SetupCommand& command, std::string_view seal,
                       const NativeSetupCallbacks& callbacks) {
  switch (command.kind) {
    case SetupCommandKind::install:
    case SetupCommandKind::repair:
      return install_document(command, seal, callbacks);
    case SetupCommandKind::status:
      return NativeInstaller::status(command.data_root).to_json();
    case SetupCommandKind::uninstall:
      return uninstall_document(command, callbacks);
    case SetupCommandKind::shortcut_create:
      return created_document(command);
    case SetupCommandKind::shortcut_remove:
      return removed_document(command);
  }
  fail("usage", "Unknown setup command");
}

std::string setup_summary(const SetupCommand& command, const json& result) {
  switch (command.kind) {
    case SetupCommandKind::install:
    case SetupCommandKind::repair:
      return install_sentence(result);
    case SetupCommandKind::status:
      return status_sentence(result);
    case SetupCommandKind::uninstall:
      return uninstall_sentence(result);
    case SetupCommandKind::shortcut_create:
      return result.contains("existing") ? "It was there already: " + text(result, "created") + "."
                                         : "Created " + text(result, "created") + ".";
    case SetupCommandKind::shortcut_remove:
      return "Removed " + std::to_string(result.at("removed").size()) + " shortcut(s).";
  }
  fail("usage", "Unknown setup command");
}

}  // namespace tavro
