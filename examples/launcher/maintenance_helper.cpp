#include "maintenance_helper.h"

#include "domain/error.h"
#include "installation/data_folder.h"
#include "launcher/launcher_helper.h"
#include "launcher/runtime_image.h"
#include "platform/host/native_platform.h"

namespace example {
namespace {

using namespace tavro;

/// While it is held nothing of the client is removed. None for an image outside every client.
std::unique_ptr<NativeFileLock> installed(const std::optional<ManagedVersion>& version) {
  if (!version) return nullptr;
  return std::make_unique<NativeFileLock>(DataPaths(version->root).bootstrap_lock, false,
                                          NativeLockSharing::none, LockMode::shared);
}

}  // namespace

std::unique_ptr<FileLock> require_own_client(std::string_view role,
                                             const std::filesystem::path& data_dir) {
  const auto image = current_executable_path();
  const auto version = managed_version(image);
  // The bootstrap's own ended as this image took its place. Without it the proof, which puts the
  // store's folders in place, could do so under another run that removes them.
  const auto present = installed(version);
  // Not `LauncherHelperRuntime`, which holds the version until the process ends.
  auto lease = launcher_helper_guard(image, role, EXAMPLE_BUILD);
  require(version && same_place(version->root, data_dir), "maintenance_unavailable",
          "A helper removes only the client that it was installed with");
  return lease;
}

}  // namespace example
