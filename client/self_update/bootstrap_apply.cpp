#include "self_update/bootstrap_apply.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "installation/installed_brand.h"
#include "installation/own_files.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "self_update/bootstrap_moves.h"
#include "self_update/bootstrap_release.h"
#include "self_update/held_signals.h"
#include "self_update/start_check.h"
#include "self_update/update_notice.h"
#include "self_update/waiting_update.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Undo = BootstrapMoves::Undo;
using Exchanges = BootstrapMoves::Exchanges;

NativeFileLock lifetime_lock(const BootstrapPaths& paths, LockMode mode) {
  return installation_lock(DataPaths(paths.root).bootstrap_lock, NativeLockSharing::none, mode);
}

std::optional<SnapshotManifest> read_release(const std::string& text) {
  try {
    return parse_bootstrap_update(text);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<SnapshotManifest> read_working(const BootstrapPaths& paths) {
  try {
    return working_bootstrap(paths);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

/// Whether this update has been committed, by a run that was cut off before its record went.
bool is_committed(const BootstrapPaths& paths, const std::string& text) {
  try {
    return read_file(paths.manifest, bootstrap_descriptor_bytes) == text;
  } catch (const Error&) {
    return false;
  }
}

void remove_record(const BootstrapPaths& paths) {
  mark_update_leftovers(paths);
  native_files::remove_or_trash(paths.pending, {});
  remove_update_leftovers(paths);
}

/// The first file that stands neither where it was staged nor, after an earlier run has moved it,
/// in place; empty when all do.
std::string changed_file(const BootstrapPaths& paths, const SnapshotManifest& release) {
  for (const auto& [path, file] : release.files) {
    const fs::path staged = safe_join(paths.update, path, true);
    const fs::path installed = safe_join(paths.installed, path, true);
    if (!holds_file(stands(staged) ? staged : installed, file)) return path;
  }
  return {};
}

/// One update on its way, as its record tells it.
class WaitingUpdate {
 public:
  WaitingUpdate(const BootstrapPaths& paths, Exchanges exchanges)
      : paths_(paths),
        text_(read_waiting_update(paths)),
        release_(read_release(text_)),
        moves_(paths, release_, read_working(paths), exchanges),
        damage_(find_damage()) {}

  const std::string& text() const { return text_; }

  /// Whether the new image has yet to run where it is staged. Afterwards it may lack files that
  /// have moved, and moves only begin once it has run.
  bool is_untested() const { return damage_.empty() && !moves_.begun(); }

  /// False when the update is given up.
  bool passes_staged(milliseconds limit, const HeldSignals& signals) {
    const fs::path image = safe_join(paths_.update, release_->executable, true);
    const auto verdict = check_start(image, limit, signals);
    if (verdict == StartVerdict::failed) give_up(not_started());
    return verdict == StartVerdict::passed;
  }

  void apply(const fs::path& image, milliseconds limit, const HeldSignals& signals) {
    if (!damage_.empty()) return give_up(damage_);
    put_in_place();
    switch (check_start(image, limit, signals)) {
      case StartVerdict::passed:
        return commit();
      case StartVerdict::failed:
      case StartVerdict::unmade:
        return give_up(not_started());
      case StartVerdict::stopped:
        moves_.undo(Undo::for_later);
    }
  }

 private:
  std::string find_damage() const {
    if (!release_) return path_utf8(paths_.pending) + " was damaged or is not for this version";
    if (const auto link = moves_.staged_link(); !link.empty())
      return path_utf8(link) + " is a link";
    try {
      const auto changed = changed_file(paths_, *release_);
      if (changed.empty()) return {};
      return path_utf8(paths_.update / changed) + " was changed";
    } catch (const std::exception& problem) {
      return problem.what();
    }
  }

  std::string not_started() const {
    return "build " + release_->build_id + " does not start on this machine";
  }

  /// One that cannot be read does not tell which files are no longer needed.
  void require_working_manifest() const {
    try {
      (void)working_bootstrap(paths_);
    } catch (const Error& error) {
      fail(error.code, message_naming(error, paths_.manifest) +
                           branded("; repair Tavro by running its installer again"));
    }
  }

  void put_in_place() {
    try {
      require_working_manifest();
      moves_.put_in_place();
    } catch (const std::exception&) {
      moves_.undo(Undo::for_later);
      throw;
    }
  }

  /// Takes the update away. While a part of it cannot be moved back it keeps waiting, so that the
  /// next start goes on with that: without the record, the old files would count as leftovers.
  void give_up(const std::string& reason) {
    require(moves_.undo(Undo::for_good), "file_write", [&] {
      return reason + ", and its files in " + path_utf8(paths_.installed) +
             " cannot all be moved back";
    });
    moves_.synchronize();
    // First, to make room for the note. A run that ends here leaves a record without its files,
    // which the next start gives up as well.
    remove_path_quietly(paths_.update);
    note_rejected_bootstrap(paths_, text_);
    remove_record(paths_);
    tell_about_update(branded("A Tavro update was given up: ") + reason +
                      branded(". Tavro stays as it is until a newer update comes."));
  }

  void commit() {
    // Only now: a power cut before this brings back the names that are known to start.
    moves_.synchronize();
    // The commit.
    atomic_write(paths_.manifest, text_);
    remove_record(paths_);
  }

  const BootstrapPaths& paths_;
  std::string text_;
  std::optional<SnapshotManifest> release_;
  BootstrapMoves moves_;
  std::string damage_;
};

/// Whether the update may go on to its moves: its image has run where it is staged. Meanwhile only
/// whoever changes the installation is kept out, so that a client can be started during a long
/// test.
bool is_tested(const BootstrapPaths& paths, const std::string& text, milliseconds limit,
               const HeldSignals& signals) {
  const auto lifetime = lifetime_lock(paths, LockMode::shared);
  if (stands(DataPaths(paths.root).incomplete_marker) || !stands(paths.pending)) return false;
  // Nothing in the installed tree changes under a lock that running bootstraps share. With half an
  // exchange it has been tested.
  WaitingUpdate update(paths, Exchanges::left);
  return update.text() == text && (!update.is_untested() || update.passes_staged(limit, signals));
}

}  // namespace

void apply_staged_bootstrap(const BootstrapPaths& paths, const fs::path& image,
                            milliseconds check_limit) {
  if (!stands(paths.pending) && !stands(paths.old_files)) return;
  use_installed_brand(paths.root);
  if (stands(paths.pending)) require_writable_volume(paths);
  const HeldSignals signals;
  const auto update = installation_lock(paths.lock, NativeLockSharing::read, LockMode::exclusive);
  std::string text;
  {
    // No other bootstrap may run while files move, and none is looked for in vain.
    const auto lifetime = lifetime_lock(paths, LockMode::exclusive);
    torn_write::remove_leftovers(
        paths.manifest.parent_path(),
        {paths.pending.filename().native(), paths.manifest.filename().native(),
         paths.rejected.filename().native(), paths.old_files.filename().native()});
    if (!stands(paths.pending)) return remove_update_leftovers(paths);
    text = read_waiting_update(paths);
    if (is_committed(paths, text)) return remove_record(paths);
  }
  if (!is_tested(paths, text, check_limit, signals)) return;
  const auto lifetime = lifetime_lock(paths, LockMode::exclusive);
  if (stands(DataPaths(paths.root).incomplete_marker) || !stands(paths.pending)) return;
  WaitingUpdate tested(paths, Exchanges::completed);
  if (tested.text() == text) tested.apply(image, check_limit, signals);
}

}  // namespace tavro
