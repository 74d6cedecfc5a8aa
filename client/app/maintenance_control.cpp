#include "app/maintenance_control.h"

#include <nlohmann/json.hpp>

#include "app/data_folder.h"
#include "app/native_install.h"
#include "app/shortcut_ledger.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"

namespace tavro {

json native_maintenance_control(const std::filesystem::path& root,
                                const std::vector<std::string>& arguments,
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
    LauncherStore& store, const json& reference, const std::filesystem::path& root,
    const std::function<bool()>& cancelled, bool) {
  require(!cancelled || !cancelled(), "cancelled", "Uninstall cancelled");
  return MaintenanceRuntime::prepare(store, reference, "maintenance", root, {});
}

}  // namespace tavro
