#pragma once

#include <cstddef>

#include "app/native_package.h"
#include "publisher/keys.h"
#include "support/testing.h"

namespace tavro {

/// What goes into a `SealedPackage`. Every default makes a package that installs.
struct SealedPackageOptions {
  /// Platform of the package and of both images; empty means `native_platform()`.
  std::string platform;
  std::string origin = "https://repository.example";
  std::string root_expires = "2099-01-01T00:00:00Z";
  std::string bootstrap_build = "1.0.0";
  std::string launcher_build = "1.0.0";
  /// Bulk files beside the entry points of each tree, and the size of each.
  std::size_t bootstrap_files = 2;
  std::size_t launcher_files = 4;
  std::size_t file_bytes = 1000;
  /// Real executables to carry; an empty path means a small shell script.
  std::filesystem::path bootstrap_image;
  std::filesystem::path launcher_image;
  std::filesystem::path launcher_gui_image;
  std::filesystem::path maintenance_image;
  /// Without it there is no windowed helper.
  std::filesystem::path maintenance_window_image;
  /// Its `icon` is not looked at.
  std::optional<Brand> brand;
  /// Bytes of the icon (only with a brand) and of the certificate bundle; empty means none.
  std::string icon;
  std::string ca_bundle;
  /// Folder of a theme (only with a brand); empty means none.
  std::filesystem::path theme;
  std::optional<FeaturedGame> featured_game;
};

/// The smallest icon that a package accepts.
std::string sample_icon();

/// A real sealed package on disk, put together by the publisher's own code. The bootstrap is
/// "bin/tavro-bootstrap"; the launcher has "bin/launcher", "bin/launcher-gui" and the maintenance
/// helpers "bin/launcher-maintenance" and "bin/launcher-maintenance-gui"; bulk files lie in
/// "share/part-N".
class SealedPackage {
 public:
  /// Builds below `where`, an existing folder (for instance a TempFolder's path): the package in
  /// "package", the trees its archives were made from in "bootstrap-tree" and "launcher-tree".
  explicit SealedPackage(const std::filesystem::path& where,
                         const SealedPackageOptions& options = {});

  std::filesystem::path folder;
  std::filesystem::path bootstrap_tree;
  std::filesystem::path launcher_tree;
  /// SHA-256 of the descriptor as it stands on disk; follows every change made through this object.
  std::string seal;
  /// One key per role; the root lists all four, each with threshold 1.
  SigningKey root_key;
  SigningKey targets_key;
  SigningKey snapshot_key;
  SigningKey timestamp_key;

  /// Where a resource lies: "root", "bootstrap_manifest", "launcher_manifest", "ca_bundle", "icon",
  /// "bootstrap_archive", "launcher_archive", "descriptor", "theme" or an asset as
  /// "theme-NAME".
  std::filesystem::path path(std::string_view resource) const;

  /// The descriptor as it stands on disk.
  json descriptor() const;

  /// Lets the caller change the descriptor, writes it back and seals the package anew.
  void edit_descriptor(const std::function<void(json& descriptor)>& change);

  /// Writes other bytes in place of a resource that the descriptor names ("root",
  /// "bootstrap_manifest", "launcher_manifest", "ca_bundle", "icon", "theme", "theme-NAME"), gives
  /// its new length and digest to the descriptor and seals the package anew.
  void replace_resource(std::string_view resource, std::string_view bytes);

  /// Root metadata of this package's keys with another expiry or version, signed by `root_key`.
  std::string signed_root(const std::string& expires, unsigned long long version = 1) const;
};

}  // namespace tavro
