#include "self_update/bootstrap_update.h"

#include <chrono>
#include <cstdlib>
#include <exception>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/bootstrap_paths.h"
#include "installation/data_folder.h"
#include "platform/host/native_platform.h"
#include "self_update/bootstrap_apply.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t environment_bytes = 8192;
constexpr std::chrono::seconds check_limit{10};

/// The application in which a launch document's helper lies; empty for every other image.
fs::path shortcut_application(const fs::path& image) {
  const fs::path programs = image.parent_path();
  const fs::path contents = programs.parent_path();
  const bool helper = image.filename() == "tavro-shortcut" && programs.filename() == "MacOS" &&
                      contents.filename() == "Contents" &&
                      contents.parent_path().filename() == "TavroShortcut.app";
  return helper ? contents.parent_path() : fs::path();
}

}  // namespace

std::optional<fs::path> installed_data_root(const fs::path& image) {
  require(image.has_root_directory() && image == image.lexically_normal(), "unsafe_path",
          "Bootstrap image path must be absolute and normalized");
  const fs::path application = shortcut_application(image);
  const fs::path bin = (application.empty() ? image : application).parent_path();
  const fs::path native = bin.parent_path().parent_path();
  if (bin.filename() != "bin" || bin.parent_path().filename() != "bootstrap" ||
      native.filename() != "native")
    return std::nullopt;
  require(!application.empty() || image.filename() == "tavro-bootstrap", "native_install_trust",
          "Unknown installed bootstrap entry");
  return native.parent_path();
}

std::unique_ptr<NativeFileLock> bootstrap_lifetime(const fs::path& image) {
  const auto root = installed_data_root(image);
  if (!root) return nullptr;
  require_complete_native_install(*root);
  return std::make_unique<NativeFileLock>(DataPaths(*root).bootstrap_lock, true,
                                          NativeLockSharing::none, LockMode::shared);
}

bool bootstrap_update_pending(const fs::path& root) { return stands(BootstrapPaths(root).pending); }

void apply_pending_bootstrap_update(const fs::path& image) {
  try {
    const auto check = process_environment(bootstrap_start_check_environment, environment_bytes);
    if (!check.empty()) std::exit(0);
    const auto root = installed_data_root(image);
    if (!root || stands(DataPaths(*root).incomplete_marker)) return;
    apply_staged_bootstrap(BootstrapPaths(*root), image, check_limit);
  } catch (const std::exception&) {
    // A failing update stops no start. What it left is for the next one.
    return;
  }
}

}  // namespace tavro
