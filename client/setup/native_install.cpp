#include "setup/native_install.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/bootstrap_paths.h"
#include "installation/cancellation.h"
#include "installation/closed_proof.h"
#include "installation/own_files.h"
#include "installation/own_folders.h"
#include "launcher/launcher_store.h"
#include "launcher/start_marker.h"
#include "launcher/store_repair.h"
#include "package/native_package.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "setup/install_plan.h"
#include "setup/install_shortcuts.h"
#include "setup/native_commit.h"
#include "tuf/trust_folder.h"
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

bool is_stranger(const fs::path& document) {
  std::error_code ignored;
  return !fs::is_regular_file(fs::symlink_status(document, ignored));
}

/// The setup lock, or what an earlier run found in its place and set aside.
bool is_of_setup_lock(const fs::path& entry, const DataPaths& paths) {
  return entry == paths.setup_lock ||
         entry.native().starts_with(set_aside_start(paths.setup_lock).native());
}

bool holds_nothing_but_setup_lock(const DataPaths& paths) {
  const auto entries = children(paths.root);
  return std::all_of(entries.begin(), entries.end(),
                     [&](const auto& entry) { return is_of_setup_lock(entry, paths); });
}

/// The installer never moves into a foreign folder.
void accept_existing_folder(const DataPaths& paths) {
  std::error_code ignored;
  bool accepted = fs::is_directory(fs::symlink_status(paths.root, ignored));
  // Listed first: what another installer adds meanwhile is known, and the lock tells of it.
  if (accepted && !holds_nothing_but_setup_lock(paths))
    accepted = std::any_of(known_entries.begin(), known_entries.end(),
                           [&](const auto name) { return stands(paths.root / name); });
  require(accepted, "unsafe_path",
          [] { return branded("Choose an empty folder or an earlier Tavro data folder"); });
}

/// A link of root's own is followed on the way to the data folder. Below it none is: all that a run
/// writes would go elsewhere.
void require_own_native(const fs::path& native) {
  std::error_code unknown;
  require(is_absent(native) || fs::is_directory(fs::symlink_status(native, unknown)), "unsafe_path",
          [&] { return "Not a folder: " + path_utf8(native) + "; move it away and try again"; });
}

/// As `private_directory`, with a failure that names the folder and a remedy. It never is to remove
/// one: player data may lie in it.
void make_private(const fs::path& folder) {
  try {
    private_directory(folder);
  } catch (const Error& error) {
    const std::string message = message_naming(error, folder);
    const bool says_more = message.find("; ") != message.npos;
    fail(error.code, message + (says_more ? "" : "; give it to this user alone and try again"));
  }
}

/// Proves that the command applies to the state of the folder.
void require_starting_point(const DataPaths& paths, bool repair) {
  require_own_native(paths.native);
  const bool marked = stands(paths.incomplete_marker);
  const bool complete = stands(paths.installation) && !marked;
  const bool stranger = complete && is_stranger(paths.installation);
  if (complete && !stranger) check_installation(paths);
  // What is no file says nothing of its version; a repair sets it aside.
  if (stranger && !repair) naming(paths.installation, [&] { check_installation(paths); });
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

/// What documents left that were cut off while they were written, all of them under these locks.
void remove_cut_off_writes(const DataPaths& paths) {
  torn_write::remove_leftovers(paths.root,
                               {".tavro-setup-incomplete", "repository.json", "repository-ca.pem"});
  torn_write::remove_leftovers(paths.native, {"installation.json", "setup-status.json",
                                              "bootstrap.json", "brand.ico", "brand.png"});
}

void append(std::vector<std::string>& all, std::vector<std::string> more) {
  all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

/// A trust folder whose root has the form of one may still hold what no client could use. Best
/// effort: what fails here is told, and the client asks the repository for it.
std::vector<std::string> mend_trust(const DataPaths& paths, const NativePackage& package) {
  TrustDamage mended;
  try {
    mended = mend_trust_folder(paths.trust, package.root_metadata);
  } catch (const std::exception& failure) {
    return {path_utf8(paths.trust) + " could not be mended: " + failure.what()};
  }
  std::vector<std::string> done;
  if (mended.root)
    done.push_back(path_utf8(paths.trust / "root.json") +
                   " did not prove and was replaced from the package");
  for (const auto& document : mended.documents)
    done.push_back(path_utf8(paths.trust / document) + " did not prove and is asked for anew");
  return done;
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
    const NativeFileLock setup = take_setup_lock(paths_, mended_);
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
    fresh_ = was_absent_ && mended_.empty() && holds_nothing_but_setup_lock(paths_);
    require_starting_point(paths_, repair_);
    make_private(paths_.native);
    append(mended_, open_own_folders(paths_, OthersFolders::refused));
    append(mended_, mend_locks(paths_));
    const NativeFileLock closed =
        wait_for_tavro_closed(paths_, std::chrono::milliseconds(0), cancellation_);
    remove_cut_off_writes(paths_);
    append(mended_, set_aside_marker(paths_));
    const InstallPlan plan = repair_ ? plan_repair(paths_) : InstallPlan();
    stage(paths_, package_, plan, cancellation_);
    if (!plan.trust) append(mended_, mend_trust(paths_, package_));
    if (has_strangers(paths_)) {
      mark_incomplete(paths_);
      append(mended_, set_aside_strangers(paths_));
    }
    commit(paths_, package_, plan);
    if (!plan.launcher) append(mended_, mend_launcher_store(paths_.root));
    // What was proved or replaced just now has not failed to start.
    if (repair_) clear_failed_starts(paths_.root);

    NativeInstallResult result;
    result.data_root = paths_.root;
    result.repaired = repair_;
    result.replaced = plan.replaced();
    result.mended = std::move(mended_);
    result.bootstrap = safe_join(paths_.bootstrap, current_bootstrap(paths_).executable, true);
    return result;
  }

  const DataPaths& paths_;
  const NativePackage& package_;
  const Cancellation& cancellation_;
  const bool repair_;
  const bool was_absent_;
  bool fresh_ = false;
  std::vector<std::string> mended_;
};

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
  make_private(paths.root);
  NativeInstallResult result =
      LockedRun(paths, package, request.repair, was_absent, cancellation).run();

  make_shortcuts(paths, request, package, result);
  write_status(paths, request.repair ? "repair" : "install", "succeeded", result.shortcut_problem);
  return result;
}

json NativeInstaller::seed_launcher(const fs::path& root, std::string_view manifest_text,
                                    const fs::path& archive, const Progress& progress) {
  return LauncherStore(root, true).seed_initial(manifest_text, archive, progress);
}

json NativeInstallResult::to_json() const {
  json document = {
      {"schema_version", 1},
      {"installed", true},
      {"repaired", repaired},
      {"data_root", path_utf8(data_root)},
      {"bootstrap", path_utf8(bootstrap)},
      {"replaced", replaced},
      {"shortcuts", path_array(shortcuts)},
      {"shortcut_problem", shortcut_problem.empty() ? json() : json(shortcut_problem)}};
  if (!mended.empty()) document["mended"] = mended;
  return document;
}

}  // namespace tavro
