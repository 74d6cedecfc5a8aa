#include "documents/bootstrap_contract.h"

#include "domain/error.h"

namespace tavro {
namespace {

bool has_ordinary_file(const SnapshotManifest& manifest, std::string_view path) {
  const auto found = manifest.files.find(std::string(path));
  return found != manifest.files.end() && !found->second.executable;
}

bool declares_windows_gui(const SnapshotManifest& manifest) {
  return manifest.platform == "windows-x86_64" &&
         has_text(manifest.document, "gui_executable", kBootstrapWindowsGui) &&
         manifest.has_executable(kBootstrapWindowsGui);
}

bool declares_mac_shortcut(const SnapshotManifest& manifest) {
  return manifest.platform == "macos-aarch64" &&
         has_text(manifest.document, "shortcut_executable", kBootstrapMacShortcut) &&
         manifest.has_executable(kBootstrapMacShortcut) &&
         has_ordinary_file(manifest, kBootstrapMacShortcutPlist);
}

}  // namespace

std::string_view bootstrap_entry_point(std::string_view platform) {
  if (platform == "linux-x86_64" || platform == "macos-aarch64") return "bin/tavro-bootstrap";
  if (platform == "windows-x86_64") return "bin/tavro-bootstrap.exe";
  return {};
}

void validate_bootstrap_contract(const SnapshotManifest& manifest) {
  const json& document = manifest.document;
  require(has_integer(document, "schema_version", 1) && has_integer(document, "bootstrap_abi", 1) &&
              has_text(document, "kind", "tavro-bootstrap-release"),
          "launcher_incompatible", "Initial bootstrap schema or ABI is unsupported");
  const std::string_view entry = bootstrap_entry_point(manifest.platform);
  require(!entry.empty(), "launcher_incompatible",
          "Initial bootstrap targets an unsupported platform");
  require(manifest.executable == entry && manifest.has_executable(entry), "launcher_incompatible",
          "Initial bootstrap has a missing or incompatible stable entry point");
  const bool has_gui = document.contains("gui_executable");
  require(!has_gui || declares_windows_gui(manifest), "invalid_native_package",
          "Initial bootstrap GUI entry must be its declared Windows windowed executable");
  const bool has_shortcut = document.contains("shortcut_executable");
  require(!has_shortcut || declares_mac_shortcut(manifest), "invalid_native_package",
          "macOS bootstrap launch documents need their declared native app helper and metadata");
  for (const auto& [path, file] : manifest.files) {
    require(!file.executable || path == entry || (has_gui && path == kBootstrapWindowsGui) ||
                (has_shortcut && path == kBootstrapMacShortcut),
            "invalid_native_package",
            "Initial bootstrap snapshot contains an undeclared executable helper");
  }
}

}  // namespace tavro
