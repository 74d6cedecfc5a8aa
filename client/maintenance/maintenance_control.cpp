#include "maintenance/maintenance_control.h"

#include <nlohmann/json.hpp>

#include "console/cli_entry.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "installation/shortcut_ledger.h"
#include "launcher/launcher_runtime.h"
#include "launcher/runtime_image.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "setup/native_install.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// What an entry point says when it may not hand over.
struct Refusals {
  std::string unmanaged;
  std::string other_image;
};

/// What the running image proved itself to be, and the locks that keep it so.
struct OwnVersion {
  LauncherStore store;
  std::unique_ptr<FileLock> owner;
  LauncherReference reference;
  std::unique_ptr<FileLock> lease;
};

/// The version whose entry point of `interface` is the running image.
OwnVersion own_version(std::string_view interface, std::string_view build_id,
                       const Refusals& refusals) {
  const auto image = current_executable_path();
  reject_staged_image(image);
  const auto version = managed_version(image);
  require(version.has_value(), "maintenance_unavailable", refusals.unmanaged);
  LauncherStore store(version->root);
  auto owner = store.owner();
  LauncherReference reference{version->manifest_sha256, std::string(build_id), {}};
  auto lease = store.version_guard(reference, LockMode::shared);
  const auto manifest = store.manifest(reference);
  const auto payload = store.payload(reference);
  require(same_place(safe_join(payload, manifest.entry_point(interface), true), image),
          "launcher_identity", refusals.other_image);
  return {std::move(store), std::move(owner), std::move(reference), std::move(lease)};
}

}  // namespace

json native_maintenance_control(const fs::path& root, const std::vector<std::string>& arguments,
                                const std::function<bool()>&) {
  auto words = arguments;
  std::erase(words, "--json");
  if (words.size() < 2 || words[0] != "self" || words[1] != "shortcut") return nullptr;
  if (words.size() == 3 && words[2] == "remove") {
    const auto removal = NativeInstaller::remove_shortcuts(root);
    return {{"schema_version", 1},
            {"removed", path_array(removal.removed)},
            {"changed", path_array(removal.changed)}};
  }
  const bool for_game = words.size() == 5 && words[3] == "--game" && !words[4].empty();
  require(words.size() >= 3 && words[2] == "create" && (words.size() == 3 || for_game), "usage",
          "Use self shortcut create [--game GAME] or self shortcut remove");
  const std::string game = for_game ? words[4] : "";
  if (for_game) validate_identifier(game);
  const auto created = NativeInstaller::create_shortcut(root, game, {}, {});
  return {{"schema_version", 1}, {"created", path_utf8(created)}};
}

std::unique_ptr<MaintenanceRuntime> prepare_console_maintenance(
    LauncherStore& store, const LauncherReference& reference, const fs::path& root,
    const std::function<bool()>& cancelled, bool) {
  require(!cancelled || !cancelled(), "cancelled", "Uninstall cancelled");
  return MaintenanceRuntime::prepare(store, reference, "maintenance", root, {});
}

std::unique_ptr<MaintenanceRuntime> prepare_console_maintenance(
    LauncherStore& store, const json& reference, const fs::path& root,
    const std::function<bool()>& cancelled, bool as_json) {
  require(!cancelled || !cancelled(), "cancelled", "Uninstall cancelled");
  return prepare_console_maintenance(
      store, present_reference(reference, "Install a verified launcher first"), root, cancelled,
      as_json);
}

std::unique_ptr<MaintenanceRuntime> prepare_gui_maintenance(const fs::path& root,
                                                            std::string_view build_id,
                                                            MaintenanceProgress progress) {
  auto version = own_version(
      "gui", build_id,
      {branded("Start the installed Tavro GUI or use the external installer to review removal"),
       "Maintenance handoff requires this build's verified GUI image"});
  return MaintenanceRuntime::prepare(version.store, version.reference, "maintenance-gui", root,
                                     progress);
}

void run_cli_maintenance(const fs::path& root, const std::vector<std::string>& arguments,
                         std::string_view build_id, const std::function<bool()>& cancelled) {
  const auto maintenance = maintenance_arguments(arguments, root);
  require(!maintenance.empty(), "usage", "Expected a native maintenance command");
  require(!launcher_startup_pending(), "maintenance_unavailable",
          "Start native maintenance through the installed bootstrap to release startup ownership");
  auto version = own_version(
      "cli", build_id,
      {"Installed maintenance needs a managed launcher image; use the external installer",
       "Native maintenance requires this build's verified CLI image"});
  const auto entry = parse_cli_entry(arguments, root, nullptr);
  prepare_console_maintenance(version.store, version.reference, root, cancelled, entry.json)
      ->replace(maintenance);
  fail("maintenance_failed", "Maintenance process replacement returned unexpectedly");
}

}  // namespace tavro
