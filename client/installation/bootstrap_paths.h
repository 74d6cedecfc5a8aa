#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>

#include "documents/manifest.h"

namespace tavro {

/// Where the installed bootstrap and its own update lie; plain path arithmetic.
struct BootstrapPaths {
  /// `data_root` is absolute and lexically normal.
  explicit BootstrapPaths(const std::filesystem::path& data_root);

  std::filesystem::path root;
  /// The tree of the working bootstrap.
  std::filesystem::path installed;
  /// The exact descriptor of the working bootstrap; rewritten only once a new one has run.
  std::filesystem::path manifest;
  /// The staged tree: complete, except for what has moved into `installed` already.
  std::filesystem::path update;
  /// The tree while it is extracted.
  std::filesystem::path partial;
  /// The exact descriptor of the staged update; an update waits while it stands.
  std::filesystem::path pending;
  std::filesystem::path downloads;
  /// The SHA-256 of the descriptor that was refused last.
  std::filesystem::path rejected;
  /// Held by whoever stages or applies.
  std::filesystem::path lock;
  /// Stands, empty, from the end of an update until all that it replaced is removed.
  std::filesystem::path old_files;
};

/// The extension of a replaced file, which stays beside its successor until that has run.
inline constexpr char replaced_extension[] = ".old";

/// The manifest of the working bootstrap, or nothing when none stands there. Throws as
/// `current_bootstrap`.
std::optional<SnapshotManifest> working_bootstrap(const BootstrapPaths& paths);

/// Removes what an update replaced. A file that the working bootstrap's manifest lists stays,
/// whatever its name. What cannot be removed leaves the marker `old_files` for a later call; the
/// call that removes the last takes it away. Throws `size_limit` beyond 250000 entries,
/// `std::filesystem::filesystem_error` for a walk that breaks off, and what `atomic_write` throws.
void remove_old_files(const BootstrapPaths& paths);

}  // namespace tavro
