#include "app/maintenance_runtime.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "app/launcher_startup.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "platform/files.h"
#include "platform/process.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// The first helper of the role, in the order of the paths.
const std::string& helper_path(const LauncherManifest& manifest, std::string_view role) {
  for (const auto& [path, declared] : manifest.runtime_helpers)
    if (declared == role) return path;
  fail("maintenance_unavailable", branded("This Tavro version has no ") + std::string(role) +
                                      branded(" helper; use the Tavro installer to uninstall"));
}

}  // namespace

MaintenanceRuntime::MaintenanceRuntime(fs::path image) : image_(std::move(image)) {}

std::unique_ptr<MaintenanceRuntime> MaintenanceRuntime::prepare(LauncherStore& store,
                                                                const json& reference,
                                                                std::string_view role,
                                                                const fs::path&,
                                                                const MaintenanceProgress&) {
  const auto manifest = store.manifest(reference);
  const auto& path = helper_path(manifest, role);
  auto image = safe_join(store.payload(reference), path, true);
  const auto& declared = manifest.files.at(path);
  require(
      fs::file_size(image) == declared.length && digest_file(image, "sha256") == declared.sha256,
      "content_mismatch", [] {
        return branded("The maintenance helper is damaged; run the Tavro installer to repair it");
      });
  return std::unique_ptr<MaintenanceRuntime>(new MaintenanceRuntime(std::move(image)));
}

std::map<std::string, std::string> MaintenanceRuntime::environment() const {
  auto environment = cleared_startup_environment();
  environment.emplace(maintenance_copy_environment, "");
  environment.emplace(maintenance_ready_environment, "");
  return environment;
}

void MaintenanceRuntime::replace(const std::vector<std::string>& arguments) {
  replace_process(image_, arguments, image_.parent_path(), environment());
}

std::vector<std::string> maintenance_arguments(const std::vector<std::string>& arguments,
                                               const fs::path& root) {
  auto words = arguments;
  const bool as_json = std::erase(words, "--json") > 0;
  if (words.size() < 2 || words[0] != "self" || words[1] != "uninstall") return {};
  std::vector<std::string> result = {"uninstall", "--data-dir", path_utf8(root)};
  for (auto word = words.begin() + 2; word != words.end(); ++word) {
    require(*word == "--remove-data", "usage", "Use self uninstall [--remove-data]");
    result.push_back(*word);
  }
  if (as_json) result.emplace_back("--json");
  return result;
}

}  // namespace tavro
