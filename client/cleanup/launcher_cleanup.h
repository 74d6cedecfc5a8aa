#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Whether a cleanup only tells what it would do.
enum class CleanupMode { plan, perform };

/// Something that a cleanup takes away.
struct CleanupItem {
  /// "version", "descriptor", "staging", "download", "download_record", "download_folder",
  /// "startup_record" or "unfinished_write".
  std::string kind;
  std::filesystem::path path;
  /// What its files hold.
  unsigned long long bytes = 0;
};

/// Something that stays although nothing needs it.
struct CleanupRest {
  std::filesystem::path path;
  /// A sentence.
  std::string reason;
};

struct CleanupReport {
  std::vector<CleanupItem> removed;
  std::vector<CleanupRest> kept;

  /// `schema_version`, `removed` (objects of `kind`, `path`, `bytes`), `freed_bytes`, and `kept`
  /// (objects of `path`, `reason`).
  json to_json() const;
};

/// Takes from the launcher store of a data folder what its updates left behind: versions that
/// neither run nor are selected, descriptors of none, unfinished stagings, downloads that are
/// unfinished or already unpacked, and the records of past starts. What is active, the rollback,
/// the candidate and an open attempt are never touched, nor, when neither the active version nor
/// the rollback can start, what a bootstrap falls back to.
///
/// Only what the store can explain goes: by a record that names it, a proved descriptor, or a
/// random temporary name of its own. All else stays, and the report says why. "cleanup.json" stands
/// for exactly as long as the work is unfinished, and keeps updates from being staged meanwhile;
/// after a crash, a failure or `cancelled` (asked between two items; may be empty) the next call
/// goes on. A plan changes nothing, and tells what a call right after it would do.
///
/// Throws `busy` while another process changes the store, `unsupported_schema` for a cleanup that
/// another version began, and as the constructor of `LauncherStore` and its `fallback_active`, all
/// before anything is changed; then `cancelled`, `file_remove`, `file_sync`, `file_write`,
/// `insufficient_space`, and `std::filesystem::filesystem_error`.
CleanupReport clean_launcher_store(const std::filesystem::path& root, CleanupMode mode,
                                   const std::function<bool()>& cancelled = {});

}  // namespace tavro
