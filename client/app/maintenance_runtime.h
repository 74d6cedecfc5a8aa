#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/launcher_store.h"

namespace tavro {

/// Whether a helper's window is to report that it is up, and where; empty when nobody waits.
inline constexpr char maintenance_ready_environment[] = "TAVRO_MAINTENANCE_READY";
/// The folder of a temporary copy of the helper; empty when it runs in place.
inline constexpr char maintenance_copy_environment[] = "TAVRO_MAINTENANCE_COPY";

/// Gets the name of a stage, bytes done and total, and a path; false cancels.
using MaintenanceProgress = std::function<bool(std::string_view, unsigned long long,
                                               unsigned long long, const std::filesystem::path&)>;

/// A helper of a launcher version that takes over a job which the version's own programs cannot do,
/// since it removes their files.
class MaintenanceRuntime {
 public:
  /// Finds the version's helper for `role` ("maintenance" or "maintenance-gui") and proves it
  /// against the descriptor. It runs in place, so `root` and `progress` are not used. Throws
  /// `maintenance_unavailable`, `content_mismatch`, and what the store and a missing file throw.
  static std::unique_ptr<MaintenanceRuntime> prepare(LauncherStore& store, const json& reference,
                                                     std::string_view role,
                                                     const std::filesystem::path& root,
                                                     const MaintenanceProgress& progress);

  /// What the helper gets on top of this process's environment: nothing of a launcher's authority.
  std::map<std::string, std::string> environment() const;

  /// Hands this process over to the helper. Returns only by throwing, as `replace_process`.
  void replace(const std::vector<std::string>& arguments);

 private:
  explicit MaintenanceRuntime(std::filesystem::path image);

  std::filesystem::path image_;
};

/// The helper's arguments for a launcher's command line, empty when that is no maintenance command.
/// Throws `usage` for a maintenance command with further words.
std::vector<std::string> maintenance_arguments(const std::vector<std::string>& arguments,
                                               const std::filesystem::path& root);

}  // namespace tavro
