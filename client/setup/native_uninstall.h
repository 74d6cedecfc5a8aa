#pragma once

#include <chrono>
#include <filesystem>
#include <vector>

#include "domain/json.h"
#include "installation/shortcut_ledger.h"
#include "setup/native_install.h"

namespace tavro {

struct NativeUninstallRequest {
  std::filesystem::path data_root;
  /// Takes saves and settings too.
  bool remove_data = false;
  /// How long the user has to close the client and its games.
  std::chrono::milliseconds timeout{0};
};

struct NativeUninstallResult {
  std::filesystem::path data_root;
  /// Nothing stands at the root any more.
  bool data_removed = false;
  /// Player data left in place.
  std::vector<std::filesystem::path> kept;
  /// What could not go now and was moved out of the folder, to be removed later.
  std::vector<std::filesystem::path> deferred;
  /// Recorded shortcuts that the user changed; they stay.
  std::vector<std::filesystem::path> changed_shortcuts;

  /// The document of the command `uninstall`.
  json to_json() const;
};

}  // namespace tavro
