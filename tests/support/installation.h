#pragma once

#include "installation/data_folder.h"
#include "setup/native_install.h"
#include "setup/native_uninstall.h"
#include "support/sealed_package.h"

namespace tavro {

/// Writes a file, the folders above it included.
void put_file(const std::filesystem::path& path, const std::string& text);

/// Puts a copy in place of whatever stands at `to`.
void copy_tree(const std::filesystem::path& from, const std::filesystem::path& to);

/// A sealed package beside a data folder that does not exist yet.
struct Installation {
  explicit Installation(const SealedPackageOptions& options = {});

  NativeInstallResult install(bool repair = false);
  NativeInstallResult repair() { return install(true); }
  NativeUninstallResult uninstall(bool remove_data = false);
  NativeInstallStatus status() const { return NativeInstaller::status(paths.root); }

  /// Saves and settings as a player has them, and whether they are still the same.
  void add_player_data() const;
  bool keeps_player_data() const;

  TempFolder folder;
  SealedPackage package;
  DataPaths paths{folder.path() / "data"};
};

}  // namespace tavro
