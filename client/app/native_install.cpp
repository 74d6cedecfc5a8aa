#include "app/native_install.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <system_error>
#include <utility>

#include "app/install_plan.h"
#include "app/launcher_store.h"
#include "app/native_commit.h"
#include "app/native_package.h"
#include "app/tavro_closed.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "platform/files.h"
#include "platform/native_lock.h"
#include "platform/snapshot.h"
#include "platform/tree.h"
#include "platform/uninstall_entry.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

void require_apart(const fs::path& root, const fs::path& package) {
  require(!within(root, package) && !within(package, root), "unsafe_path",
          "The package and data folders overlap");
}

/// The deepest paths that the installation will ever have; the second leaves room for an update of
/// the bootstrap by itself.
void require_room(const DataPaths& paths, const NativePackage& package) {
  const fs::path version = fs::path("launcher-root/launcher/versions") / std::string(64, '0');
  require_path_room(paths.root, paths.staging / version, package.launcher.longest_native_path());
  require_path_room(paths.root, paths.native / "bootstrap-update.partial",
                    package.bootstrap.longest_native_path());
}

bool is_absent(const fs::path& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() == fs::file_type::not_found;
}

bool holds_nothing_but_setup_lock(const DataPaths& paths) {
  for (const auto& entry : fs::directory_iterator(paths.root))
    if (entry.path() != paths.setup_lock) return false;
  return true;
}

/// The installer never moves into a foreign folder.
void accept_existing_folder(const DataPaths& paths) {
  std::error_code ignored;
  bool accepted = fs::is_directory(fs::symlink_status(paths.root, ignored));
  if (accepted) {
    bool earlier = false;
    for (const auto name : known_entries) earlier = earlier || stands(paths.root / name);
    accepted = earlier || holds_nothing_but_setup_lock(paths);
  }
  require(accepted, "unsafe_path",
          [] { return branded("Choose an empty folder or an earlier Tavro data folder"); });
}

/// Proves that the command applies to the state of the folder.
void require_starting_point(const DataPaths& paths, bool repair) {
  const bool marked = stands(paths.incomplete_marker);
  const bool complete = stands(paths.installation) && !marked;
  if (complete) check_installation(paths);
  if (repair) {
    require_installed(complete || marked, paths.root);
    return;
  }
  require(!complete, "already_installed", [&] {
    return branded("Tavro is already installed in ") + path_utf8(paths.root) + "; use repair";
  });
  if (!is_absent(paths.root)) accept_existing_folder(paths);
}

/// Everything that the commit moves, proved where it lies. The live parts stand untouched.
void stage(const DataPaths& paths, const NativePackage& package, const InstallPlan& plan,
           const Cancellation& cancellation) {
  // Nothing of an earlier run may reach the commit; what cannot be removed is refused below.
  remove_path_quietly(paths.staging);
  private_directory(paths.staging);
  const Progress installing = cancellation.progress("installing");
  if (plan.bootstrap) {
    const fs::path tree = paths.staging / "bootstrap";
    extract_snapshot(package.bootstrap, package.bootstrap_archive(), tree, installing);
    verify_snapshot_tree(package.bootstrap, tree);
  }
  cancellation.check();
  if (plan.launcher)
    NativeInstaller::seed_launcher(paths.staging / "launcher-root", package.launcher_descriptor,
                                   package.launcher_archive(), installing);
  cancellation.check();
  if (plan.trust) {
    private_directory(paths.staging / "trust");
    TufClient::initialize(paths.staging / "trust", package.root_metadata);
  }
  cancellation.check();
}

/// Best effort: the folder returns to what it was, unless the commit had begun. Player data and
/// unknown files stay.
void discard_failed_install(const DataPaths& paths, bool fresh) {
  if (fresh) {
    remove_path_quietly(paths.root);
    return;
  }
  remove_path_quietly(paths.staging);
  if (stands(paths.incomplete_marker) || stands(paths.installation)) return;
  remove_path_quietly(paths.native);
  std::error_code ignored;
  fs::remove(paths.setup_lock, ignored);
  fs::remove(paths.bootstrap_lock, ignored);
}

/// One run, as far as it works under the locks.
class LockedRun {
 public:
  LockedRun(const DataPaths& paths, const NativePackage& package, bool repair, bool fresh,
            const Cancellation& cancellation)
      : paths_(paths),
        package_(package),
        cancellation_(cancellation),
        repair_(repair),
        fresh_(fresh) {}

  NativeInstallResult run() {
    // Without this lock the folder is another worker's, so that nothing in it may be settled; and
    // it is held while a failure is, since the next worker may otherwise be at work by then.
    const NativeFileLock setup(paths_.setup_lock, true, NativeLockSharing::none,
                               LockMode::exclusive);
    try {
      return install();
    } catch (const std::exception& failure) {
      if (repair_)
        write_status(paths_, "repair", "failed", failure.what());
      else
        discard_failed_install(paths_, fresh_);
      throw;
    }
  }

 private:
  NativeInstallResult install() {
    // Another run may have come and gone between the look at the folder and the lock.
    fresh_ = fresh_ && holds_nothing_but_setup_lock(paths_);
    require_starting_point(paths_, repair_);
    private_directory(paths_.native);
    const NativeFileLock closed =
        wait_for_tavro_closed(paths_, std::chrono::milliseconds(0), cancellation_);
    const InstallPlan plan = repair_ ? plan_repair(paths_) : InstallPlan();
    stage(paths_, package_, plan, cancellation_);
    commit(paths_, package_, plan);

    NativeInstallResult result;
    result.data_root = paths_.root;
    result.repaired = repair_;
    result.replaced = plan.replaced();
    result.bootstrap = safe_join(paths_.bootstrap, current_bootstrap(paths_).executable, true);
    return result;
  }

  const DataPaths& paths_;
  const NativePackage& package_;
  const Cancellation& cancellation_;
  const bool repair_;
  bool fresh_;
};

UninstallEntry uninstall_entry(const DataPaths& paths, const std::optional<Brand>& brand) {
  UninstallEntry entry;
  entry.key = uninstall_entry_key(brand);
  entry.display_name = brand ? brand->name : "Tavro";
  entry.publisher = brand ? brand->publisher : "Tavro";
  entry.data_root = path_utf8(paths.root);
  const fs::path executable = shortcut_bootstrap(paths);
  entry.executable = path_utf8(executable);
  const fs::path icon = brand_icon_path(paths.root);
  entry.icon = path_utf8(stands(icon) ? icon : executable);
  return entry;
}

/// A step behind the commit: the installation is complete, and the first failure is only told.
template <typename Step>
void guarded(std::string& problem, const Step& step) {
  try {
    step();
  } catch (const std::exception& failure) {
    if (problem.empty()) problem = failure.what();
  }
}

}  // namespace

NativeInstallResult NativeInstaller::install(const NativeInstallRequest& request,
                                             std::string_view seal,
                                             const NativeSetupCallbacks& callbacks) {
  const Cancellation cancellation(callbacks);
  cancellation.report("verifying", 0, 0);
  const NativePackage package =
      read_native_package(request.package, seal, cancellation.progress("verifying"));
  const DataPaths paths(data_folder(request.data_root));
  require_apart(paths.root, package.root);
  require_room(paths, package);
  const bool fresh = is_absent(paths.root);
  require_starting_point(paths, request.repair);

  // The first change on disk.
  private_directory(paths.root);
  NativeInstallResult result = LockedRun(paths, package, request.repair, fresh, cancellation).run();

  guarded(result.shortcut_problem,
          [&] { register_uninstall_entry(uninstall_entry(paths, package.brand)); });
  write_status(paths, request.repair ? "repair" : "install", "succeeded", result.shortcut_problem);
  return result;
}

json NativeInstaller::seed_launcher(const fs::path& root, std::string_view manifest_text,
                                    const fs::path& archive, const Progress& progress) {
  return LauncherStore(root, true).seed_initial(manifest_text, archive, progress);
}

json NativeInstallResult::to_json() const {
  return {{"schema_version", 1},
          {"installed", true},
          {"repaired", repaired},
          {"data_root", path_utf8(data_root)},
          {"bootstrap", path_utf8(bootstrap)},
          {"replaced", replaced},
          {"shortcuts", path_array(shortcuts)},
          {"shortcut_problem", shortcut_problem.empty() ? json() : json(shortcut_problem)}};
}

}  // namespace tavro
