#include "launcher/launcher_helper.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <string>
#include <system_error>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "launcher/runtime_image.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 3> helper_roles = {"crash-handler", "maintenance",
                                                          "maintenance-gui"};

/// An absolute path that names an ordinary file without any link but those of the system.
bool is_ordinary_image(const fs::path& image) {
  std::error_code error;
  if (!image.has_root_directory() || !fs::is_regular_file(image, error) ||
      fs::is_symlink(fs::symlink_status(image, error)))
    return false;
  const auto canonical = fs::canonical(image, error);
  return !error && canonical == resolve_system_links(image);
}

std::string stored_build(const LauncherStore& store, const std::string& name) {
  const auto path = safe_join(store.directory(), "manifests/" + name + ".json", true);
  const auto document =
      parse_json(read_file(path, launcher_descriptor_bytes), launcher_descriptor_bytes);
  const auto build = document.find("build_id");
  require(build != document.end() && build->is_string(), "launcher_helper",
          "Native helper has no bounded launcher identity");
  return *build;
}

/// The inventory's entry of the helper of this role whose file is the image.
const PackageFile& declared_helper(const LauncherManifest& manifest, const fs::path& payload,
                                   const fs::path& image, std::string_view role) {
  for (const auto& [path, declared] : manifest.runtime_helpers) {
    std::error_code error;
    if (declared == role && fs::equivalent(safe_join(payload, path, true), image, error))
      return manifest.files.at(path);
  }
  fail("launcher_identity", "Running helper image differs from its declared native role");
}

}  // namespace

std::unique_ptr<FileLock> launcher_helper_guard(const fs::path& image, std::string_view role,
                                                std::string_view build_id) {
  require(std::find(helper_roles.begin(), helper_roles.end(), role) != helper_roles.end(),
          "launcher_helper", "Unsupported native helper role");
  if (!build_id.empty()) validate_identifier(build_id);
  require(is_ordinary_image(image), "launcher_identity",
          "Native helper image must be an ordinary physical path");
  // The place is told from the names above the image: "." and ".." among them would hide it.
  const auto physical = resolve_system_links(image);
  reject_staged_image(physical);
  const auto version = managed_version(physical);
  if (!version) return nullptr;

  const LauncherStore store(version->root);
  const LauncherReference reference{
      version->manifest_sha256,
      build_id.empty() ? stored_build(store, version->manifest_sha256) : std::string(build_id),
      {}};
  auto lease = store.version_guard(reference, LockMode::shared);
  const auto manifest = store.manifest(reference);
  const auto& declared = declared_helper(manifest, store.payload(reference), physical, role);
  require(fs::file_size(physical) == declared.length &&
              digest_file(physical, "sha256") == declared.sha256,
          "content_mismatch", "Native helper image differs from its verified launcher inventory");
  return lease;
}

std::unique_ptr<LauncherHelperRuntime> LauncherHelperRuntime::attach(std::string_view build_id,
                                                                     std::string_view role) {
  validate_identifier(build_id);
  auto lease = launcher_helper_guard(current_executable_path(), role, build_id);
  if (!lease) return nullptr;
  return std::unique_ptr<LauncherHelperRuntime>(new LauncherHelperRuntime(std::move(lease)));
}

LauncherHelperRuntime::LauncherHelperRuntime(std::unique_ptr<FileLock> lease)
    : version_lease_(std::move(lease)) {}

LauncherHelperRuntime::~LauncherHelperRuntime() { version_lease_->retain_until_process_exit(); }

}  // namespace tavro
