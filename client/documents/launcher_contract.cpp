#include "documents/launcher_contract.h"

#include <algorithm>
#include <array>

#include "domain/error.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

constexpr std::uint64_t kMaxLauncherBytes = 1073741824;
constexpr std::size_t kMaxLauncherFiles = 4096;
constexpr std::size_t kMaxHelpers = 16;
constexpr unsigned long long kApplicationSchema = 1;

bool is_interface(std::string_view interface) { return interface == "cli" || interface == "gui"; }

std::uint64_t require_contract_value(const json& document, const char* key,
                                     std::uint64_t expected) {
  require(document.contains(key), "launcher_incompatible",
          "Launcher manifest lacks its runtime contract");
  require(is_integer(document.at(key), expected), "launcher_incompatible",
          "Unsupported launcher runtime contract");
  return expected;
}

void require_compatible(const json& document) {
  require(document.is_object() && is_integer(document.at("schema_version"), 1) &&
              document.at("kind") == "tavro-launcher-release",
          "unsupported_schema",
          "Unsupported launcher manifest; existing installation was preserved");
  require(is_integer(document.at("bootstrap_abi"), 1) && is_integer(document.at("health_abi"), 1),
          "launcher_incompatible", "This launcher needs another native bootstrap ABI");
  const json& range = document.at("application_schema");
  const auto minimum = positive_version(range.at("minimum"));
  const auto maximum = positive_version(range.at("maximum"));
  require(minimum <= kApplicationSchema && maximum >= kApplicationSchema, "launcher_incompatible",
          "This launcher cannot preserve the current application data schema");
}

void read_gui_executable(LauncherManifest& manifest) {
  manifest.gui_executable = manifest.document.at("gui_executable").get<std::string>();
  validate_relative_path(manifest.gui_executable, true);
  require(manifest.has_executable(manifest.gui_executable), "invalid_manifest",
          "GUI launcher executable is missing or not executable");
  require(manifest.gui_executable != manifest.executable, "invalid_manifest",
          "GUI and CLI need separate native entry points");
}

void read_helper(LauncherManifest& manifest, const json& entry) {
  constexpr std::array<std::string_view, 3> kRoles = {"crash-handler", "maintenance",
                                                      "maintenance-gui"};
  require(has_exactly(entry, {"path", "role", "lease_abi"}), "launcher_incompatible",
          "Native helper ownership fields are invalid");
  const auto path = entry.at("path").get<std::string>();
  const auto role = entry.at("role").get<std::string>();
  require(std::find(kRoles.begin(), kRoles.end(), role) != kRoles.end() &&
              is_integer(entry.at("lease_abi"), 1),
          "launcher_incompatible", "Unsupported native helper ownership contract");
  require(path != manifest.executable && path != manifest.gui_executable &&
              manifest.has_executable(path) && manifest.runtime_helpers.emplace(path, role).second,
          "launcher_incompatible", "Native helper is missing, repeated or overlaps a frontend");
}

void read_helpers(LauncherManifest& manifest) {
  const json& helpers = manifest.document.at("runtime_helpers");
  require(helpers.is_array() && helpers.size() <= kMaxHelpers, "launcher_incompatible",
          "Native helper ownership must be a bounded list");
  for (const json& entry : helpers) read_helper(manifest, entry);
  for (const auto& [path, file] : manifest.files) {
    require(!file.executable || path == manifest.executable || path == manifest.gui_executable ||
                manifest.runtime_helpers.contains(path),
            "launcher_incompatible", "Every native helper needs declared lifetime ownership");
  }
}

LauncherManifest read_launcher(const json& document) {
  require_compatible(document);
  LauncherManifest manifest;
  static_cast<SnapshotManifest&>(manifest) = SnapshotManifest::parse(document);
  manifest.runtime_lease_abi = require_contract_value(document, "runtime_lease_abi", 2);
  manifest.staging_abi = require_contract_value(document, "staging_abi", 1);
  manifest.console_interrupt_abi = require_contract_value(document, "console_interrupt_abi", 1);
  require(manifest.archive_length <= kMaxLauncherBytes &&
              manifest.expanded_length <= kMaxLauncherBytes &&
              manifest.files.size() <= kMaxLauncherFiles,
          "size_limit", "Launcher payload exceeds bounded native package limits");
  read_gui_executable(manifest);
  read_helpers(manifest);
  return manifest;
}

bool is_integer_member(const json& document, const char* key) {
  const json* member = find_member(document, key);
  return member != nullptr && member->is_number_integer();
}

}  // namespace

LauncherManifest LauncherManifest::parse(const json& document) {
  return read_fields("invalid_manifest", "Launcher manifest has missing or malformed fields",
                     [&] { return read_launcher(document); });
}

const std::string& LauncherManifest::entry_point(std::string_view interface) const {
  return interface == "cli" ? executable : gui_executable;
}

json LauncherManifest::startup_health(const json& attempt, unsigned long long pid,
                                      std::string_view interface, bool console_interrupt) const {
  require(pid != 0 && is_interface(interface), "launcher_health",
          "Launcher health needs its exact native process and interface");
  json health = {{"schema_version", 1},
                 {"health_abi", 1},
                 {"nonce", attempt.at("nonce")},
                 {"manifest_sha256", attempt.at("reference").at("manifest_sha256")},
                 {"build_id", build_id},
                 {"pid", pid},
                 {"interface", interface},
                 {"application_schema", kApplicationSchema},
                 {"state", "ready"}};
  if (console_interrupt && interface == "cli") health["console_interrupt_abi"] = 1;
  return health;
}

bool LauncherManifest::matches_startup_health(const json& received, const json& attempt,
                                              unsigned long long pid, std::string_view interface,
                                              bool console_interrupt) const {
  if (!received.is_object()) return false;
  // The library holds 1 and 1.0 for equal.
  for (const char* key : {"schema_version", "health_abi", "application_schema", "pid"})
    if (!is_integer_member(received, key)) return false;
  if (console_interrupt && interface == "cli" && !has_integer(received, "console_interrupt_abi", 1))
    return false;
  return received == startup_health(attempt, pid, interface, console_interrupt);
}

json lease_document(const LauncherManifest& manifest, const json& attempt, unsigned long long pid,
                    std::string_view interface) {
  json document = manifest.startup_health(attempt, pid, interface, false);
  document.erase("health_abi");
  document["runtime_lease_abi"] = manifest.runtime_lease_abi;
  document["state"] = "leased";
  return document;
}

std::string launcher_manifest_target(std::string_view platform) {
  return "launcher-" + std::string(platform) + ".manifest.json";
}

void interface_shape(std::string_view interface) {
  require(is_interface(interface), "launcher_interface",
          "Choose the CLI or GUI launcher interface");
}

}  // namespace tavro
