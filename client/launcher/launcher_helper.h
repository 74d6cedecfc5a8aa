#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include "platform/files/file_locks.h"

namespace tavro {

/// What a helper process of a launcher holds: the lease of the version that it runs from, until the
/// process ends.
class LauncherHelperRuntime {
 public:
  /// Proves that the running image is the helper that this build declares for `role`. Null for an
  /// image outside every store. Throws `invalid_identity` and what `launcher_helper_guard` throws.
  static std::unique_ptr<LauncherHelperRuntime> attach(std::string_view build_id,
                                                       std::string_view role);
  ~LauncherHelperRuntime();
  LauncherHelperRuntime(const LauncherHelperRuntime&) = delete;
  LauncherHelperRuntime& operator=(const LauncherHelperRuntime&) = delete;

 private:
  explicit LauncherHelperRuntime(std::unique_ptr<FileLock> lease);

  std::unique_ptr<FileLock> version_lease_;
};

/// The lease of the version that the helper `image` belongs to, after a proof of the image's place,
/// role ("crash-handler", "maintenance" or "maintenance-gui"), length and digest. `build_id` may be
/// empty: the stored descriptor then says it. Null for an image outside every store.
///
/// Throws `launcher_helper` (another role, no descriptor to go by), `launcher_identity` (no
/// ordinary file, another role's), `content_mismatch`, and what `reject_staged_image` and the store
/// throw.
std::unique_ptr<FileLock> launcher_helper_guard(const std::filesystem::path& image,
                                                std::string_view role, std::string_view build_id);

}  // namespace tavro
