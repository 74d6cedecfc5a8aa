#pragma once

#include "package/native_package.h"
#include "publisher/keys.h"
#include "support/testing.h"

namespace tavro {

/// What goes into a `SealedPackage`. Every default makes a package that installs.
struct SealedPackageOptions {
  std::string root_expires = "2099-01-01T00:00:00Z";
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
  /// Builds the package in the folder "package" of `where`, which exists.
  explicit SealedPackage(const std::filesystem::path& where,
                         const SealedPackageOptions& options = {});

  std::filesystem::path folder;
  /// SHA-256 of the descriptor as it stands on disk; follows every change made through this object.
  std::string seal;

  /// Where a resource lies: "root", "bootstrap_manifest", "launcher_manifest", "ca_bundle", "icon",
  /// "bootstrap_archive", "launcher_archive", "descriptor", "theme" or an asset as "theme-NAME".
  std::filesystem::path path(std::string_view resource) const;

  /// The descriptor as it stands on disk.
  json descriptor() const;

  /// Lets the caller change the descriptor, writes it back and seals the package anew.
  void edit_descriptor(const std::function<void(json& descriptor)>& change);

  /// Writes other bytes in place of a resource that the descriptor names, gives their length and
  /// digest to the descriptor and seals the package anew.
  void replace_resource(std::string_view resource, std::string_view bytes);

  /// The package's root metadata with another expiry.
  std::string signed_root(const std::string& expires) const;

 private:
  /// The key of each role.
  SigningKey key_;
};

}  // namespace tavro
