#include "setup/install_status.h"

#include <nlohmann/json.hpp>

#include <exception>

#include "domain/input.h"
#include "installation/own_files.h"
#include "installation/shortcut_ledger.h"
#include "launcher/launcher_store.h"
#include "self_update/bootstrap_update.h"
#include "setup/native_install.h"

namespace tavro {
namespace {

/// The active launcher, else the one that waits for its first start. What the store cannot tell is
/// no failure of the status, but a problem.
std::string launcher_build(const std::filesystem::path& root, std::vector<std::string>& problems) {
  try {
    const auto record = LauncherStore::existing(root)->record();
    const auto& reference = record.active ? record.active : record.candidate;
    return reference ? reference->build_id : std::string();
  } catch (const std::exception& failure) {
    problems.push_back(path_utf8(root / "launcher") + " cannot be read: " + failure.what());
    return {};
  }
}

/// A document that is no file has no words of its own for that; all others have.
template <typename Work>
void naming_stranger(const std::filesystem::path& document, const Work& work) {
  if (std::filesystem::is_regular_file(std::filesystem::symlink_status(document)) ||
      !stands(document))
    work();
  else
    naming(document, work);
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
  status.problems = file_problems(paths);
  naming_stranger(paths.installation, [&] { check_installation(paths); });
  status.bootstrap_build =
      naming(paths.bootstrap_manifest, [&] { return current_bootstrap(paths).build_id; });
  status.launcher_build = launcher_build(paths.root, status.problems);
  status.bootstrap_update_pending = bootstrap_update_pending(paths.root);
  status.bootstrap_update_problem = bootstrap_update_obstacle(paths.root);
  for (const auto& shortcut : owned_native_shortcuts(paths.root))
    status.shortcuts.push_back(path_from_utf8(shortcut.path));
  naming_stranger(paths.setup_status, [&] { status.last_operation = last_operation(paths); });
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
  if (!problems.empty()) document["problems"] = problems;
  return document;
}

}  // namespace tavro
