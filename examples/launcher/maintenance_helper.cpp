#include "maintenance_helper.h"

#include "app/launcher_helper.h"
#include "app/runtime_image.h"
#include "domain/error.h"
#include "platform/native_platform.h"

namespace example {

std::unique_ptr<tavro::FileLock> require_own_client(std::string_view role,
                                                    const std::filesystem::path& data_dir) {
  const auto image = tavro::current_executable_path();
  // Not `LauncherHelperRuntime`, which holds the version until the process ends.
  auto lease = tavro::launcher_helper_guard(image, role, EXAMPLE_BUILD);
  const auto version = tavro::managed_version(image);
  tavro::require(version && tavro::same_place(version->root, data_dir), "maintenance_unavailable",
                 "A helper removes only the client that it was installed with");
  return lease;
}

}  // namespace example
