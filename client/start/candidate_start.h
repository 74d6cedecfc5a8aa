#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tavro {

/// One start as it was asked for.
struct LauncherStart {
  std::filesystem::path root;
  /// "cli" or "gui".
  std::string interface;
  /// All that the launcher is given.
  std::vector<std::string> arguments;
  /// Whether the user wants a stop; never empty, asked every few milliseconds.
  std::function<bool()> cancelled;
};

/// Starts the version that waits in the store and watches it: it becomes the active one only by its
/// proof within `limit` (health, lease, acknowledgement, intact tree), and any failure is recorded
/// and ends it. A stop that the user asks for is passed on to a console launcher.
///
/// Returns the exit status of the proved launcher, after its end and at most 255 (else 1). Nothing
/// when an earlier attempt was settled and none waits, or when the candidate failed and an active
/// version is there to be started instead. No lock is held then.
///
/// A candidate that failed is told on standard error, with how it ended.
///
/// Throws `argument_limit` for arguments that no child takes, before anything is tried; `busy`
/// while another bootstrap tries a candidate, `launcher_running` while an unfinished start is still
/// alive, `launcher_startup_timeout` when a failed launcher could not be confirmed gone, and the
/// failure of the candidate when there is no active version. A disk that cannot be written is a
/// code of `local_storage_failure`, or `lock_failed`: then no launcher of the attempt runs, though
/// it may be open still.
std::optional<int> start_candidate(const LauncherStart& start, std::chrono::milliseconds limit);

}  // namespace tavro
