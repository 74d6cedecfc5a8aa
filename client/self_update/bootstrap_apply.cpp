#include "self_update/bootstrap_apply.h"

#include <algorithm>
#include <csignal>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/process/child_process.h"
#include "platform/process/interrupt.h"
#include "self_update/bootstrap_moves.h"
#include "self_update/bootstrap_release.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds check_period{20};
constexpr milliseconds check_grace{250};

/// Keeps a Ctrl+C from cutting the work where the new bootstrap is in place and has not run yet:
/// the user might then be left with one that never starts. The signal follows when this ends.
class HeldInterrupt {
 public:
  HeldInterrupt() {
    try {
      interrupt_ = std::make_unique<ConsoleInterrupt>(false);
    } catch (const Error&) {
      // The caller listens itself.
    }
  }
  HeldInterrupt(const HeldInterrupt&) = delete;
  HeldInterrupt& operator=(const HeldInterrupt&) = delete;
  ~HeldInterrupt() {
    const bool came = requested();
    interrupt_.reset();
    if (came) (void)std::raise(SIGINT);
  }

  bool requested() const { return interrupt_ && interrupt_->requested(); }

 private:
  std::unique_ptr<ConsoleInterrupt> interrupt_;
};

enum class Verdict { passed, failed, open };

/// The one test of the new image. It shares the console, so that a Ctrl+C ends it too and says
/// nothing about it.
Verdict check_start(const fs::path& image, milliseconds limit, const HeldInterrupt& interrupt) {
  try {
    ChildProcess child(image, {}, image.parent_path(), {{bootstrap_start_check_environment, "1"}},
                       ChildStreams::output_to_errors, ChildEnvironment::whole, {},
                       ChildGroup::inherited, ChildControl::none);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto status = child.poll();
      if (status == 0) return Verdict::passed;
      const bool late = std::chrono::steady_clock::now() >= deadline;
      const bool stop = interrupt.requested();
      if (!status && !late && !stop) {
        std::this_thread::sleep_for(check_period);
        continue;
      }
      if (!status) child.terminate(check_grace);
      return stop ? Verdict::open : Verdict::failed;
    }
  } catch (const std::exception&) {
    return Verdict::failed;
  }
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

/// Every file stands where it was staged, or in place when an earlier run has moved it.
bool is_unchanged(const BootstrapPaths& paths, const SnapshotManifest& release) {
  try {
    return std::ranges::all_of(release.files, [&](const auto& file) {
      const fs::path staged = safe_join(paths.update, file.first, true);
      const fs::path installed = safe_join(paths.installed, file.first, true);
      return holds_file(stands(staged) ? staged : installed, file.second);
    });
  } catch (const std::exception&) {
    return false;
  }
}

/// Takes the update away. While a part of it cannot be moved back it keeps waiting, so that the
/// next start goes on with that: without the record, the old files would count as leftovers.
void reject(const BootstrapPaths& paths, BootstrapMoves& moves, const std::string& text) {
  if (!moves.undo()) return;
  moves.synchronize();
  atomic_write(paths.rejected, digest(text, "sha256"));
  native_files::remove_or_trash(paths.pending, {});
  remove_path_quietly(paths.update);
}

void commit(const BootstrapPaths& paths, const BootstrapMoves& moves, const std::string& text) {
  // Only now: a power cut before this brings back the names that are known to start.
  moves.synchronize();
  // The commit.
  atomic_write(paths.manifest, text);
  native_files::remove_or_trash(paths.pending, {});
  remove_path_quietly(paths.update);
  remove_old_files(paths);
}

/// False when the files could not all be moved in.
bool put_in_place(const BootstrapPaths& paths, BootstrapMoves& moves) {
  try {
    // A manifest that cannot be read does not tell which files are no longer needed.
    (void)working_bootstrap(paths);
    moves.put_in_place();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

void apply_staged_bootstrap(const BootstrapPaths& paths, const fs::path& image,
                            milliseconds check_limit) {
  if (!stands(paths.pending) && !stands(paths.old_files)) return;
  const HeldInterrupt interrupt;
  const NativeFileLock update(paths.lock, true, NativeLockSharing::read, LockMode::exclusive);
  // No other bootstrap may run while files move.
  const NativeFileLock lifetime(DataPaths(paths.root).bootstrap_lock, true, NativeLockSharing::none,
                                LockMode::exclusive);
  remove_torn_writes(paths, {paths.pending, paths.manifest, paths.rejected, paths.old_files});
  if (!stands(paths.pending)) return remove_old_files(paths);

  const std::string text = read_file(paths.pending, bootstrap_descriptor_bytes);
  const auto release = read_release(text);
  BootstrapMoves moves(paths, release, read_working(paths));
  if (!release || !is_unchanged(paths, *release)) return reject(paths, moves, text);
  const auto verdict =
      put_in_place(paths, moves) ? check_start(image, check_limit, interrupt) : Verdict::open;
  switch (verdict) {
    case Verdict::passed:
      return commit(paths, moves, text);
    case Verdict::failed:
      return reject(paths, moves, text);
    case Verdict::open:
      // The update waits for the next start.
      moves.undo();
  }
}

}  // namespace tavro
