#include "platform/host/native_platform.h"

#include <array>
#include <string>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "platform/host/host.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_image_path_bytes = 32768;
constexpr int max_image_levels = 256;

constexpr std::array<std::string_view, 3> package_guards{
    ".tavro-native-bundle-incomplete.json",
    ".tavro-initial-package-incomplete.json",
    ".tavro-launcher-package-incomplete.json",
};

/// Something of any type. A name that cannot be examined counts as absent.
bool stands(const fs::path& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

}  // namespace

std::string_view native_platform() noexcept { return host::platform(); }

fs::path current_executable_path() {
  const std::string image = host::running_image(max_image_path_bytes);
  require(!image.empty(), "launcher_identity",
          "Cannot identify this native executable within its path bound");
  return fs::weakly_canonical(fs::absolute(path_from_utf8(image)));
}

void require_complete_native_install(const fs::path& directory) {
  if (!stands(directory / incomplete_marker_name)) return;
  fail("native_install_incomplete",
       branded("Tavro setup did not finish in ") + path_utf8(directory) +
           branded(". Run the Tavro installer again to repair it."),
       {branded("Run the Tavro installer and choose Repair")});
}

void require_complete_native_install_image(const fs::path& path) {
  int levels = 0;
  for (fs::path folder = path.parent_path(); !folder.empty(); folder = folder.parent_path()) {
    require(++levels <= max_image_levels, "unsafe_path", "Native image path is too deep");
    require_complete_native_install(folder);
    for (const auto guard : package_guards)
      require(!stands(folder / guard), "native_install_incomplete",
              "This image belongs to an unfinished package; it cannot start");
    if (folder == folder.parent_path()) break;
  }
}

}  // namespace tavro
