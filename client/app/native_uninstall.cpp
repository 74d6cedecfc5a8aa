#include "app/native_uninstall.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <system_error>

#include "app/brand.h"
#include "app/tavro_closed.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files.h"
#include "platform/native_files.h"
#include "platform/native_lock.h"
#include "platform/uninstall_entry.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

bool is_directory_itself(const fs::path& path) {
  return fs::is_directory(fs::symlink_status(path));
}

void remove_entry(const fs::path& path, const fs::path& trash, std::vector<fs::path>& deferred) {
  if (is_directory_itself(path)) {
    for (const auto& child : children(path)) remove_entry(child, trash, deferred);
    // A directory may stay behind for an entry that could only be set aside.
    std::error_code ignored;
    if (!deferred.empty()) {
      fs::remove(path, ignored);
      return;
    }
  }
  if (!native_files::remove_or_trash(path, trash)) deferred.push_back(path);
}

/// One walk that empties the folder, except for what the run still needs and what the player keeps.
class Removal {
 public:
  Removal(const DataPaths& paths, bool remove_data)
      : paths_(paths),
        trash_(native_files::temporary_directory(paths.root) / ("tavro-removed-" + random_id())),
        remove_data_(remove_data) {}

  void run(NativeUninstallResult& result) const {
    for (const auto& entry : children(paths_.root)) {
      if (entry == paths_.incomplete_marker || entry == paths_.bootstrap_lock ||
          entry == paths_.setup_lock)
        continue;
      if (!remove_data_ && is_player_data(entry))
        result.kept.push_back(entry);
      else
        remove_entry(entry, trash_, result.deferred);
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

/// The record goes before all that it describes. It is not looked for behind a link in place of the
/// native folder: that link goes, and what it leads to stays.
void remove_installation_record(const DataPaths& paths) {
  if (is_directory_itself(paths.native)) native_files::remove_or_trash(paths.installation, {});
}

void remove_lock_files(const DataPaths& paths) {
  std::error_code ignored;
  fs::remove(paths.bootstrap_lock, ignored);
  fs::remove(paths.setup_lock, ignored);
}

/// The folder itself, if nothing of the player's is left in it; best effort.
void remove_root(const fs::path& root, bool remove_data) {
  std::error_code ignored;
  if (remove_data || fs::is_empty(root, ignored)) fs::remove(root, ignored);
}

DataPaths installed_paths(const fs::path& data_root) {
  const DataPaths paths(data_folder(data_root));
  require_installed(stands(paths.installation), paths.root);
  return paths;
}

constexpr std::string_view no_shortcuts = "This version cannot create or remove shortcuts";

}  // namespace

NativeUninstallResult NativeInstaller::uninstall(const NativeUninstallRequest& request,
                                                 const NativeSetupCallbacks& callbacks) {
  const Cancellation cancellation(callbacks);
  const DataPaths paths(data_folder(request.data_root));
  require_installed(stands(paths.installation) || stands(paths.incomplete_marker), paths.root);
  const Removal removal(paths, request.remove_data);
  NativeUninstallResult result;
  result.data_root = paths.root;

  const NativeFileLock setup(paths.setup_lock, true, NativeLockSharing::none, LockMode::exclusive);
  {
    const NativeFileLock closed = wait_for_tavro_closed(paths, request.timeout, cancellation);
    // The last point of return.
    cancellation.check();
    cancellation.report("removing", 0, 0);
    mark_incomplete(paths);
    const auto brand = installed_brand(paths.root);
    remove_installation_record(paths);
    remove_uninstall_entry(uninstall_entry_key(brand));
    removal.run(result);
  }
  remove_lock_files(paths);
  // Without the marker the folder counts as removed, so that the removals must be durable first.
  sync_directory(paths.root);
  clear_incomplete(paths);
  remove_root(paths.root, request.remove_data);
  if (!result.deferred.empty()) native_files::remove_after_exit(removal.trash());
  result.data_removed = !stands(paths.root);
  cancellation.report("removing", 1, 1);
  return result;
}

fs::path NativeInstaller::create_shortcut(const fs::path& data_root, std::string_view,
                                          const fs::path&, std::string_view) {
  installed_paths(data_root);
  fail("shortcuts_unavailable", no_shortcuts);
}

ShortcutRemoval NativeInstaller::remove_shortcuts(const fs::path& data_root) {
  installed_paths(data_root);
  fail("shortcuts_unavailable", no_shortcuts);
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
