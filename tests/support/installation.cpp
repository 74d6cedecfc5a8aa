#include "support/installation.h"

#include <cstdlib>

#include "support/snapshot_archive.h"

namespace tavro {

void put_file(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

void copy_tree(const fs::path& from, const fs::path& to) {
  fs::remove_all(to);
  fs::create_directories(to.parent_path());
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

Installation::Installation(const SealedPackageOptions& options) : package(folder.path(), options) {
  // The menu is this installation's own too.
  setenv("XDG_DATA_HOME", (folder.path() / "share").c_str(), 1);
}

NativeInstallResult Installation::install(bool repair) {
  return NativeInstaller::install({package.folder, paths.root, repair, true}, package.seal, {});
}

NativeUninstallResult Installation::uninstall(bool remove_data) {
  return NativeInstaller::uninstall({paths.root, remove_data, std::chrono::milliseconds(0)}, {});
}

void Installation::add_player_data() const {
  put_file(paths.root / "userdata/game/save.bin", "a save");
  put_file(paths.root / "settings.json", "settings");
}

bool Installation::keeps_player_data() const {
  auto found = tree_content(paths.root);
  return found["userdata/game/save.bin"] == "a save" && found["settings.json"] == "settings";
}

}  // namespace tavro
