#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "documents/manifest.h"
#include "installation/data_folder.h"

namespace tavro {

struct NativePackage;

/// What the last setup action came to.
struct NativeSetupRecord {
  /// "install" or "repair".
  std::string action;
  /// "succeeded" or "failed".
  std::string outcome;
  /// The failure, or the problem that a success left; at most 2048 bytes.
  std::string message;
  std::string finished_at;
};

/// The time of day in UTC as "2024-01-31T23:59:59Z".
std::string utc_now();

/// Writes the marker durably. From then on nothing starts from the folder until it is removed.
void mark_incomplete(const DataPaths& paths);

/// Removes the marker, without a sync. Throws `file_remove`.
void clear_incomplete(const DataPaths& paths);

/// Proves that the installation record is one of this version. Throws `unsupported_schema`, or what
/// `read_file` and `parse_json` throw.
void check_installation(const DataPaths& paths);

/// Writes the record that makes a folder an installation of `package`. Durable.
void write_installation(const DataPaths& paths, const NativePackage& package);

/// The manifest of the installed bootstrap. Throws as `read_file`, `parse_json` and
/// `SnapshotManifest::parse`.
SnapshotManifest current_bootstrap(const DataPaths& paths);

/// The executable that a shortcut starts: the windowed one where the bootstrap has one.
std::filesystem::path shortcut_bootstrap(const DataPaths& paths);

/// The record of the last setup action; nothing when none stands there. Throws
/// `unsupported_schema`, or what `read_file` and `parse_json` throw.
std::optional<NativeSetupRecord> last_operation(const DataPaths& paths);

/// Records what a setup action came to. Best effort, raises nothing: it must neither turn a result
/// into a failure nor hide the real one. `message` is cut to 2048 bytes; bytes that are no UTF-8
/// are left out.
void write_status(const DataPaths& paths, std::string_view action, std::string_view outcome,
                  std::string_view message) noexcept;

}  // namespace tavro
