#include "setup/native_install.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <system_error>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/bootstrap_paths.h"
#include "installation/cancellation.h"
#include "installation/closed_proof.h"
#include "installation/installed_brand.h"
#include "installation/shortcut_ledger.h"
#include "launcher/launcher_store.h"
#include "package/native_package.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/uninstall_entry.h"
#include "setup/install_plan.h"
#include "setup/native_commit.h"
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
  require_path_room(paths.root, BootstrapPaths(paths.root).partial,
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

/// A folder that did not exist before goes as a whole, in an order that keeps it honest: cut off
/// anywhere, it is not taken for an installation, and a further run knows it for its own. The lock
/// goes last, and the folder only if it is empty by then: another run may have entered.
void discard_new_folder(const DataPaths& paths) {
  native_files::remove_quietly(paths.installation);
  bool emptied = true;
  for (const auto& entry : children(paths.root))
    if (entry != paths.native && entry != paths.incomplete_marker && entry != paths.setup_lock)
      emptied = remove_path_quietly(entry) && emptied;
  if (!emptied || !remove_path_quietly(paths.native)) return;
  for (const auto& last : {paths.incomplete_marker, paths.setup_lock, paths.root})
    native_files::remove_quietly(last);
}

/// Takes back what a failed install did to a folder that it found, unless the commit had begun.
/// Player data and unknown files stay.
void discard_additions(const DataPaths& paths) {
  remove_path_quietly(paths.staging);
  if (!is_absent(paths.incomplete_marker) || !is_absent(paths.installation)) return;
  native_files::remove_quietly(paths.bootstrap_lock);
  remove_path_quietly(paths.native);
  native_files::remove_quietly(paths.setup_lock);
}

/// Best effort, so that the failure itself is what the caller hears of.
void discard_failed_install(const DataPaths& paths, bool fresh) noexcept {
  try {
    if (fresh)
      discard_new_folder(paths);
    else
      discard_additions(paths);
  } catch (const std::exception&) {
    // What stays is for the next run.
    return;
  }
}

/// Nothing is rolled back. Only what was staged for a commit that never began goes, for it may be
/// what fills the disk.
void settle_failed_repair(const DataPaths& paths, std::string_view problem) {
  if (is_absent(paths.incomplete_marker)) remove_path_quietly(paths.staging);
  write_status(paths, "repair", "failed", problem);
}

/// One run, as far as it works under the locks.
class LockedRun {
 public:
  /// `was_absent`: nothing stood at the root when the run began.
  LockedRun(const DataPaths& paths, const NativePackage& package, bool repair, bool was_absent,
            const Cancellation& cancellation)
      : paths_(paths),
        package_(package),
        cancellation_(cancellation),
        repair_(repair),
        was_absent_(was_absent) {}

  NativeInstallResult run() {
    // Without this lock the folder is another worker's, so that nothing in it may be settled; and
    // it is held while a failure is, since the next worker may otherwise be at work by then.
    const NativeFileLock setup(paths_.setup_lock, true, NativeLockSharing::none,
                               LockMode::exclusive);
    try {
      return install();
    } catch (const std::exception& failure) {
      if (repair_)
        settle_failed_repair(paths_, failure.what());
      else
        discard_failed_install(paths_, fresh_);
      throw;
    }
  }

 private:
  NativeInstallResult install() {
    // Another run may have come and gone between the look at the folder and the lock.
    fresh_ = was_absent_ && holds_nothing_but_setup_lock(paths_);
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
  const bool was_absent_;
  bool fresh_ = false;
};

/// A repair brings back what is missing; an install makes the launcher's shortcut, unless a front
/// end makes that of the brand's game instead.
void make_shortcuts(const DataPaths& paths, const NativeInstallRequest& request,
                    const NativePackage& package, std::vector<fs::path>& shortcuts) {
  const fs::path target = shortcut_bootstrap(paths);
  if (request.repair) {
    shortcuts = restore_owned_native_shortcuts(paths.root, target);
    return;
  }
  if (!request.create_shortcut || (package.brand && package.featured_game)) return;
  const std::string name = package.brand ? package.brand->name : "Tavro";
  const fs::path entry = native_menu_entry(paths.root, "", name);
  create_owned_native_shortcut({target, paths.root, "", name}, entry);
  shortcuts.push_back(entry);
}

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
  const bool was_absent = is_absent(paths.root);
  require_starting_point(paths, request.repair);

  // The first change on disk.
  private_directory(paths.root);
  NativeInstallResult result =
      LockedRun(paths, package, request.repair, was_absent, cancellation).run();

  guarded(result.shortcut_problem,
          [&] { make_shortcuts(paths, request, package, result.shortcuts); });
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
