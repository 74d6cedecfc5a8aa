#include "setup/install_status.h"

#include <nlohmann/json.hpp>

#include <exception>

#include "domain/input.h"
#include "installation/shortcut_ledger.h"
#include "launcher/launcher_store.h"
#include "self_update/bootstrap_update.h"
#include "setup/native_install.h"

namespace tavro {
namespace {

/// The active launcher, else the one that waits for its first start. What the store cannot tell is
/// no failure of the status.
std::string launcher_build(const std::filesystem::path& root) {
  try {
    const json record = LauncherStore::existing(root)->status();
    const json& reference =
        record.at("active").is_null() ? record.at("candidate") : record.at("active");
    return reference.is_null() ? std::string() : reference.at("build_id").get<std::string>();
  } catch (const std::exception&) {
    return {};
  }
}

json operation_json(const NativeSetupRecord& record) {
  return {{"action", record.action},
          {"outcome", record.outcome},
          {"message", record.message},
          {"finished_at", record.finished_at}};
}

}  // namespace

NativeInstallStatus NativeInstaller::status(const std::filesystem::path& data_root) {
  const DataPaths paths(data_folder(data_root));
  NativeInstallStatus status;
  status.data_root = paths.root;
  status.incomplete = stands(paths.incomplete_marker);
  status.installed = stands(paths.installation) && !status.incomplete;
  if (!status.installed) return status;
  check_installation(paths);
  status.bootstrap_build = current_bootstrap(paths).build_id;
  status.launcher_build = launcher_build(paths.root);
  status.bootstrap_update_pending = bootstrap_update_pending(paths.root);
  status.bootstrap_update_problem = bootstrap_update_obstacle(paths.root);
  for (const auto& shortcut : owned_native_shortcuts(paths.root))
    status.shortcuts.push_back(path_from_utf8(shortcut.path));
  status.last_operation = last_operation(paths);
  return status;
}

json NativeInstallStatus::to_json() const {
  json document = {{"schema_version", 1},
                   {"data_root", path_utf8(data_root)},
                   {"installed", installed},
                   {"incomplete", incomplete},
                   {"bootstrap_build", bootstrap_build},
                   {"launcher_build", launcher_build},
                   {"bootstrap_update_pending", bootstrap_update_pending},
                   {"shortcuts", path_array(shortcuts)},
                   {"last_operation", nullptr}};
  if (!bootstrap_update_problem.empty())
    document["bootstrap_update_problem"] = bootstrap_update_problem;
  if (last_operation) document["last_operation"] = operation_json(*last_operation);
  return document;
}

}  // namespace tavro
