#include "launcher/runtime_image.h"

#include <system_error>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr int max_ancestors = 256;
constexpr std::size_t version_name_bytes = 64;

/// The nearest folder above the image for which `wanted` holds, empty if there is none.
template <typename Wanted>
fs::path ancestor(const fs::path& image, Wanted&& wanted) {
  int steps = 0;
  for (fs::path folder = image.parent_path();; folder = folder.parent_path()) {
    require(++steps <= max_ancestors, "launcher_identity",
            "Native executable ancestry exceeds its bound");
    if (wanted(folder)) return folder;
    if (folder == folder.parent_path()) return {};
  }
}

bool is_staging(const fs::path& folder) {
  return folder.filename() == "staging" && folder.parent_path().filename() == "launcher";
}

bool is_version(const fs::path& folder) {
  const auto versions = folder.parent_path();
  return path_utf8(folder.filename()).size() == version_name_bytes &&
         versions.filename() == "versions" && versions.parent_path().filename() == "launcher";
}

}  // namespace

bool is_maintenance_copy(const fs::path& folder) {
  return path_utf8(folder.filename()).starts_with("tavro-maintenance-");
}

void require_maintenance_runtime_image(const fs::path& image) {
  // No bound here: the guards that come after it have theirs.
  for (fs::path folder = image.parent_path();; folder = folder.parent_path()) {
    require(!is_maintenance_copy(folder), "maintenance_copy",
            [] { return branded("A temporary maintenance helper cannot start Tavro"); });
    if (folder == folder.parent_path()) return;
  }
}

void reject_staged_image(const fs::path& image) {
  require_maintenance_runtime_image(image);
  // Walked before the next guard, which has the same bound and another word for it.
  const auto staging = ancestor(image, is_staging);
  require_complete_native_install_image(image);
  require(staging.empty(), "launcher_staging",
          [] {
            return branded("A staged Tavro image cannot initialize; start the installed bootstrap");
          },
          {"self status"});
}

std::optional<ManagedVersion> managed_version(const fs::path& image) {
  const auto version = ancestor(image, is_version);
  if (version.empty()) return std::nullopt;
  auto name = path_utf8(version.filename());
  hash_identity(name);
  const auto launcher = version.parent_path().parent_path();
  return ManagedVersion{ordinary_root(launcher.parent_path()), std::move(name)};
}

bool same_place(const fs::path& left, const fs::path& right) {
  std::error_code error;
  return fs::equivalent(left, right, error) && !error;
}

}  // namespace tavro
