#include "setup/native_uninstall.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <system_error>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/cancellation.h"
#include "installation/closed_proof.h"
#include "installation/installed_brand.h"
#include "installation/own_files.h"
#include "installation/own_folders.h"
#include "package/brand.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/running_files.h"
#include "platform/host/uninstall_entry.h"
#include "setup/install_shortcuts.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

bool is_directory_itself(const fs::path& path) {
  return fs::is_directory(fs::symlink_status(path));
}

/// Outside the data folder. Where nothing has to be set aside, a temporary folder that cannot be
/// used stops no removal.
fs::path folder_for_trash(const fs::path& root) {
  try {
    return native_files::temporary_directory(root);
  } catch (const fs::filesystem_error&) {
    return root.parent_path();
  }
}

/// One walk that empties the folder, except for what the run still needs and what the player keeps.
class Removal {
 public:
  Removal(const DataPaths& paths, bool remove_data)
      : paths_(paths),
        trash_(folder_for_trash(paths.root) / ("tavro-removed-" + random_id())),
        remove_data_(remove_data) {}

  void run(NativeUninstallResult& result) const {
    for (const auto& entry : children(paths_.root)) {
      if (entry == paths_.incomplete_marker || entry == paths_.bootstrap_lock ||
          entry == paths_.setup_lock)
        continue;
      if (!remove_data_ && is_player_data(entry))
        result.kept.push_back(entry);
      else
        native_files::remove_tree_or_trash(entry, trash_, result.deferred);
    }
  }

  const fs::path& trash() const { return trash_; }

 private:
  static bool is_player_data(const fs::path& entry) {
    return std::find(player_data.begin(), player_data.end(), entry.filename()) != player_data.end();
  }

  const DataPaths& paths_;
  fs::path trash_;
  bool remove_data_;
};

void require_removable(const DataPaths& paths) {
  require_installed(stands(paths.installation) || stands(paths.incomplete_marker), paths.root);
}

/// On a full disk, which the user may be about to free, the record itself becomes the marker: it
/// only has to stand there, and a move takes no space.
void mark_removal(const DataPaths& paths) {
  try {
    mark_incomplete(paths);
  } catch (const Error& error) {
    if (error.code != "insufficient_space") throw;
    if (is_directory_itself(paths.native) && stands(paths.installation))
      native_files::rename_replace(paths.installation, paths.incomplete_marker);
    require(stands(paths.incomplete_marker), error.code, error.what());
    sync_directory(paths.root);
  }
}

/// The record goes before all that it describes. It is not looked for behind a link in place of the
/// native folder: that link goes, and what it leads to stays.
void remove_installation_record(const DataPaths& paths) {
  if (!is_directory_itself(paths.native)) return;
  // A folder in its place is emptied with all the rest, under another name.
  if (is_directory_itself(paths.installation)) set_aside(paths.installation);
  native_files::remove_or_trash(paths.installation, {});
}

/// Without the marker the folder counts as removed, so that the removals must be durable first. The
/// setup lock goes right before it: from then on another run may enter and set a marker of its own.
void remove_locks_and_marker(const DataPaths& paths) {
  native_files::remove_quietly(paths.bootstrap_lock);
  sync_directory(paths.root);
  native_files::remove_quietly(paths.setup_lock);
  clear_incomplete(paths);
}

/// The folder itself, if nothing of the player's is left in it; best effort.
void remove_root(const fs::path& root, bool remove_data) {
  std::error_code ignored;
  if (remove_data || fs::is_empty(root, ignored)) native_files::remove_quietly(root);
}

DataPaths installed_paths(const fs::path& data_root) {
  const DataPaths paths(data_folder(data_root));
  require_installed(stands(paths.installation), paths.root);
  return paths;
}

}  // namespace

NativeUninstallResult NativeInstaller::uninstall(const NativeUninstallRequest& request,
                                                 const NativeSetupCallbacks& callbacks) {
  const Cancellation cancellation(callbacks);
  const DataPaths paths(data_folder(request.data_root));
  require_removable(paths);
  const Removal removal(paths, request.remove_data);
  NativeUninstallResult result;
  result.data_root = paths.root;

  std::vector<std::string> untold;
  const NativeFileLock setup = take_setup_lock(paths, untold);
  // Another run may have come and gone since the first look.
  require_removable(paths);
  open_own_folders(paths, OthersFolders::passed);
  mend_locks(paths);
  {
    const NativeFileLock closed = wait_for_tavro_closed(paths, request.timeout, cancellation);
    // The last point of return.
    cancellation.check();
    cancellation.report("removing", 0, 0);
    // Read first: the record may become the marker.
    const auto brand = installed_brand(paths.root);
    set_aside_marker(paths);
    mark_removal(paths);
    remove_installation_record(paths);
    remove_uninstall_entry(uninstall_entry_key(brand));
    result.changed_shortcuts = remove_all_shortcuts(paths);
    removal.run(result);
  }
  remove_locks_and_marker(paths);
  remove_root(paths.root, request.remove_data);
  if (!result.deferred.empty()) native_files::remove_after_exit(removal.trash());
  result.data_removed = !stands(paths.root);
  cancellation.report("removing", 1, 1);
  return result;
}

fs::path NativeInstaller::create_shortcut(const fs::path& data_root, std::string_view game,
                                          const fs::path& destination, std::string_view name) {
  return make_shortcut(data_root, game, destination, name).path;
}

NativeInstaller::MadeShortcut NativeInstaller::make_shortcut(const fs::path& data_root,
                                                             std::string_view game,
                                                             const fs::path& destination,
                                                             std::string_view name) {
  const DataPaths paths = installed_paths(data_root);
  if (name.empty()) name = game.empty() ? std::string_view(product_name()) : game;
  const fs::path path = destination.empty() ? native_menu_entry(paths.root, game, name)
                                            : fs::absolute(destination).lexically_normal();
  const bool created = create_named_shortcut(
      {shortcut_bootstrap(paths), paths.root, std::string(game), std::string(name)}, path);
  return {path, created};
}

ShortcutRemoval NativeInstaller::remove_shortcuts(const fs::path& data_root) {
  return remove_owned_native_shortcuts(installed_paths(data_root).root);
}

json NativeUninstallResult::to_json() const {
  return {{"schema_version", 1},
          {"uninstalled", true},
          {"data_root", path_utf8(data_root)},
          {"data_removed", data_removed},
          {"kept", path_array(kept)},
          {"deferred", path_array(deferred)},
          {"changed_shortcuts", path_array(changed_shortcuts)}};
}

}  // namespace tavro
