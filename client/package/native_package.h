#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "documents/launcher_contract.h"
#include "documents/manifest.h"
#include "documents/theme.h"
#include "domain/progress.h"
#include "package/brand.h"

namespace tavro {

/// The game that a package puts first.
struct FeaturedGame {
  std::string id;
  /// Display name, 1 to 80 bytes.
  std::string name;
};

/// The theme of a brand: its definition and its assets with the names that the definition uses. They
/// keep the rules of a theme.
struct SealedTheme {
  std::string definition;
  std::vector<std::pair<std::string, std::string>> files;
};

/// A sealed package folder, proved as a whole: every file in it was hashed. The small files are in
/// memory; the two archives stay on disk and must be proved again by whoever extracts them.
struct NativePackage {
  /// Absolute and lexically normal.
  std::filesystem::path root;
  /// SHA-256 of the descriptor, which is the seal.
  std::string descriptor_sha256;
  /// Plain HTTPS origin of the repository, without a trailing slash.
  std::string origin;
  /// TUF root, validly signed by its own keys and not expired when it was read.
  std::string root_metadata;
  /// Private certificates of the repository; empty when the system's trust store serves.
  std::string ca_bundle;
  std::string bootstrap_descriptor;
  std::string launcher_descriptor;
  SnapshotManifest bootstrap;
  LauncherManifest launcher;
  std::optional<FeaturedGame> featured_game;
  std::optional<Brand> brand;
  /// Content of the brand's icon file; empty when there is none.
  std::string brand_icon;
  std::optional<SealedTheme> theme;

  std::filesystem::path bootstrap_archive() const;
  std::filesystem::path launcher_archive() const;
};

/// Proves the package folder against `seal`, the SHA-256 of its descriptor in lower-case
/// hexadecimal, and reads it. Writes nothing. `progress` (may be empty) gets bytes done and bytes
/// total of each file that is hashed; false ends the read with `cancelled`.
/// Throws `native_install_trust` when seal and folder do not belong together,
/// `invalid_native_package`, `unsupported_schema`, `launcher_incompatible`, `invalid_origin`,
/// `expired_metadata`, `size_limit`, `content_mismatch`, `invalid_theme`, and what the readers of its parts throw.
NativePackage read_native_package(const std::filesystem::path& path, std::string_view seal,
                                  const Progress& progress = {});

/// What a front end shows before an install, read from the sealed descriptor alone: no other file
/// of the package is looked at. They throw as `read_native_package` does.
std::optional<Brand> package_brand(const std::filesystem::path& path, std::string_view seal);
std::optional<FeaturedGame> package_featured_game(const std::filesystem::path& path,
                                                  std::string_view seal);

/// The theme of the package's brand, its files proved against the descriptor and by `parse_theme`;
/// nothing without one. The paths in it lie in the package folder.
std::optional<Theme> package_theme(const std::filesystem::path& path, std::string_view seal);

/// The verified icon file of the package's brand, or an empty path without one.
std::filesystem::path package_brand_icon(const std::filesystem::path& path, std::string_view seal);

}  // namespace tavro
