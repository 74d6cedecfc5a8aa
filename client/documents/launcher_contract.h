#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "documents/manifest.h"
#include "domain/json.h"

namespace tavro {

/// The descriptor of a launcher release: a snapshot with the native contract between the stable
/// bootstrap and the launcher that it starts.
struct LauncherManifest : SnapshotManifest {
  /// Relative path of the windowed entry point; the console entry point is `executable`.
  std::string gui_executable;
  /// Each further native executable of the payload and its role: "crash-handler", "maintenance" or
  /// "maintenance-gui". At most 16.
  std::map<std::string, std::string> runtime_helpers;
  /// 2, 1 and 1 after a parse.
  std::uint64_t runtime_lease_abi = 0;
  std::uint64_t staging_abi = 0;
  std::uint64_t console_interrupt_abi = 0;

  /// Proves the whole descriptor or throws: `unsupported_schema`, `launcher_incompatible` (another
  /// contract than this build speaks), `invalid_version`, `size_limit` (more than 1 GiB or 4096
  /// files), `invalid_manifest`, and the codes of `SnapshotManifest::parse`.
  static LauncherManifest parse(const json& document);

  /// Relative path of the entry point of "cli", else of the windowed one.
  const std::string& entry_point(std::string_view interface) const;

  /// The document by which a started launcher proves that it is ready. `attempt` holds `nonce` and
  /// `reference`. Throws `launcher_health` for process 0 or another interface than "cli" and "gui".
  json startup_health(const json& attempt, unsigned long long pid, std::string_view interface,
                      bool console_interrupt) const;

  /// True only for exactly the document that `startup_health` builds from the same arguments, with
  /// integers where it has integers. A value of any shape is only compared.
  bool matches_startup_health(const json& received, const json& attempt, unsigned long long pid,
                              std::string_view interface, bool console_interrupt) const;
};

/// The document by which a started launcher acknowledges that it holds the lease of its attempt.
/// Throws as `startup_health`.
json lease_document(const LauncherManifest& manifest, const json& attempt, unsigned long long pid,
                    std::string_view interface);

/// Repository target name of the descriptor for a platform: "launcher-<platform>.manifest.json".
std::string launcher_manifest_target(std::string_view platform);

/// Throws `launcher_interface` for anything but "cli" and "gui".
void interface_shape(std::string_view interface);

}  // namespace tavro
