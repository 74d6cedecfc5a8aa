#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "launcher/launcher_store.h"

namespace tavro {

class ChildProcess;

/// The file by which a helper says that its window is up; empty when nobody waits.
inline constexpr char maintenance_ready_environment[] = "TAVRO_MAINTENANCE_READY";
/// The folder of a temporary copy of the helper; empty when it runs in place.
inline constexpr char maintenance_copy_environment[] = "TAVRO_MAINTENANCE_COPY";

/// Gets the name of a stage, bytes done and total, and a path; false cancels.
using MaintenanceProgress = std::function<bool(std::string_view, unsigned long long,
                                               unsigned long long, const std::filesystem::path&)>;

/// A helper of a launcher version that takes over a job which the version's own programs cannot do,
/// since it removes their files. The same object stands on both sides: in the program that hands
/// over, where it is used for one launch, and in the helper.
///
/// Where a system cannot remove a running program, the helper runs from a temporary copy. This one
/// can, and makes none; of a copy that somebody made the helper's object takes the folder away.
class MaintenanceRuntime {
 public:
  /// Finds the version's helper for `role` ("maintenance" or "maintenance-gui") and proves it
  /// against the descriptor. It runs in place, so `root` and `progress` are not used. Throws
  /// `maintenance_unavailable`, `content_mismatch`, and what the store and a missing file throw.
  static std::unique_ptr<MaintenanceRuntime> prepare(LauncherStore& store,
                                                     const LauncherReference& reference,
                                                     std::string_view role,
                                                     const std::filesystem::path& root,
                                                     const MaintenanceProgress& progress);
  static std::unique_ptr<MaintenanceRuntime> prepare(LauncherStore& store, const json& reference,
                                                     std::string_view role,
                                                     const std::filesystem::path& root,
                                                     const MaintenanceProgress& progress);

  /// In the helper: what the environment says of its start. Null when nobody waits for it and there
  /// is no copy, as after `replace` and `launch_console`. Build and role are not looked at, so this
  /// proves nothing: see `launcher_helper_guard`. Throws `maintenance_copy` when the running image
  /// does not lie in the copy that is named, and what `process_environment` throws.
  static std::unique_ptr<MaintenanceRuntime> attach(std::string_view build_id,
                                                    std::string_view role);
  ~MaintenanceRuntime();
  MaintenanceRuntime(const MaintenanceRuntime&) = delete;
  MaintenanceRuntime& operator=(const MaintenanceRuntime&) = delete;

  /// What the helper gets on top of this process's environment: nothing of a launcher's authority.
  std::map<std::string, std::string> environment() const;

  // The helper starts in its own folder.

  /// Hands this process over to the helper. Returns only by throwing, as `replace_process`.
  void replace(const std::vector<std::string>& arguments);

  /// Starts the helper in the console's form: in a process group of its own, with this process's
  /// output and a channel for a stop request. Throws as `ChildProcess`.
  std::unique_ptr<ChildProcess> launch_console(const std::vector<std::string>& arguments);

  /// Starts the helper and returns once it has shown itself. Throws `maintenance_startup` when it
  /// ended or `limit` passed before that, in which case it is stopped, and when the system has no
  /// temporary folder; otherwise as `ChildProcess`.
  std::unique_ptr<ChildProcess> launch_gui(const std::vector<std::string>& arguments,
                                           std::chrono::milliseconds limit);

  /// In the helper, once its window is up: tells whoever waits for it. Throws as `atomic_create`.
  void report_ready();

 private:
  MaintenanceRuntime() = default;

  /// Whether the helper says within the limit that it is up.
  bool shows_itself(ChildProcess& helper, std::chrono::milliseconds limit) const;

  std::filesystem::path copy_;
  std::filesystem::path image_;
  std::filesystem::path ready_;
  bool attached_ = false;
  bool launched_ = false;
};

/// The helper's arguments for a launcher's command line, empty when that is no maintenance command.
/// Throws `usage` for a maintenance command with further words.
std::vector<std::string> maintenance_arguments(const std::vector<std::string>& arguments,
                                               const std::filesystem::path& root);

}  // namespace tavro
