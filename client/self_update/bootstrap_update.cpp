#include "self_update/bootstrap_update.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/bootstrap_paths.h"
#include "installation/data_folder.h"
#include "platform/host/native_platform.h"
#include "self_update/bootstrap_apply.h"
#include "self_update/start_check.h"
#include "self_update/update_notice.h"
#include "self_update/waiting_update.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t environment_bytes = 8192;
constexpr std::chrono::seconds check_limit{10};
/// How long a start waits for one that puts an update into place, whose test ends before this.
constexpr std::chrono::seconds update_wait{12};
constexpr std::chrono::milliseconds update_poll{20};

/// The application in which a launch document's helper lies; empty for every other image.
fs::path shortcut_application(const fs::path& image) {
  const fs::path programs = image.parent_path();
  const fs::path contents = programs.parent_path();
  const bool helper = image.filename() == "tavro-shortcut" && programs.filename() == "MacOS" &&
                      contents.filename() == "Contents" &&
                      contents.parent_path().filename() == "TavroShortcut.app";
  return helper ? contents.parent_path() : fs::path();
}

/// Whether somebody stages or applies an update.
bool update_is_busy(const BootstrapPaths& paths) {
  try {
    (void)installation_lock(paths.lock, NativeLockSharing::read, LockMode::exclusive);
    return false;
  } catch (const Error& error) {
    return error.code == "busy";
  }
}

void tell_waiting(const std::exception& problem) {
  tell_about_update(branded("A Tavro update waits: ") + problem.what() + ".");
}

/// A failing update stops no start. What it left is for the next one.
void apply(const BootstrapPaths& paths, const fs::path& image) {
  try {
    apply_staged_bootstrap(paths, image, check_limit);
  } catch (const Error& error) {
    if (error.code != "busy") tell_waiting(error);
  } catch (const std::exception& error) {
    tell_waiting(error);
  }
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
  const auto deadline = std::chrono::steady_clock::now() + update_wait;
  for (bool updates = true;;) {
    try {
      return std::make_unique<NativeFileLock>(installation_lock(
          DataPaths(*root).bootstrap_lock, NativeLockSharing::none, LockMode::shared));
    } catch (const Error& error) {
      // One more look after the update's end, which may have come before this was asked.
      const bool goes_on = updates && std::chrono::steady_clock::now() < deadline;
      if (error.code != "busy" || !goes_on) throw;
    }
    updates = update_is_busy(BootstrapPaths(*root));
    if (updates) std::this_thread::sleep_for(update_poll);
  }
}

bool bootstrap_update_pending(const fs::path& root) { return stands(BootstrapPaths(root).pending); }

std::string bootstrap_update_obstacle(const fs::path& root) {
  return waiting_update_obstacle(BootstrapPaths(root));
}

void apply_pending_bootstrap_update(const fs::path& image) {
  try {
    const auto check = process_environment(bootstrap_start_check_environment, environment_bytes);
    if (!check.empty()) std::exit(0);
    const auto root = installed_data_root(image);
    if (root && !stands(DataPaths(*root).incomplete_marker)) apply(BootstrapPaths(*root), image);
  } catch (const std::exception&) {
    // Whatever is wrong with this process is told by the start that follows.
    return;
  }
}

}  // namespace tavro
