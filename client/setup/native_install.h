#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "domain/progress.h"
#include "installation/setup_callbacks.h"
#include "setup/install_status.h"

namespace tavro {

struct NativeUninstallRequest;
struct NativeUninstallResult;
struct ShortcutRemoval;

struct NativeInstallRequest {
  /// The sealed initial package.
  std::filesystem::path package;
  std::filesystem::path data_root;
  /// Repairs an installation, finished or not, instead of making one.
  bool repair = false;
  bool create_shortcut = false;
};

struct NativeInstallResult {
  std::filesystem::path data_root;
  /// The executable of the installed bootstrap.
  std::filesystem::path bootstrap;
  bool repaired = false;
  /// Of "bootstrap", "launcher" and "trust", in this order, what came from the package.
  std::vector<std::string> replaced;
  /// Shortcuts made or restored.
  std::vector<std::filesystem::path> shortcuts;
  /// Beyond the parts: files whose form was mended, one sentence part each, such as "/data/x was made
  /// private again". In the document only when there are any.
  std::vector<std::string> mended;
  /// The first failure of the steps after the commit, which fail nothing; empty when none.
  std::string shortcut_problem;

  /// The document of the commands `install` and `repair`.
  json to_json() const;
};

/// The engine behind the setup commands. One command runs on the caller's thread to its end;
/// nothing is kept between calls.
class NativeInstaller {
 public:
  /// Makes or repairs the installation in a data folder from the package with this seal. An install
  /// takes a new folder, an empty one or an earlier data folder, and replaces all three parts; a
  /// repair replaces the parts that do not prove intact. Neither touches player data.
  ///
  /// Nothing is written before the package is proved and the folder accepted. A failed install
  /// leaves the folder as it was, or gone if it was new, unless the commit had begun in a folder
  /// that existed; that, and a failed repair, are finished by another repair. Throws
  /// `not_installed`, `already_installed`, `unsafe_path`, `busy`, `tavro_running`, `cancelled`, and
  /// what the package, the locks, extraction and the commit throw.
  static NativeInstallResult install(const NativeInstallRequest& request, std::string_view seal,
                                     const NativeSetupCallbacks& callbacks);

  /// Makes a launcher store in the unfinished folder `root` and places the first launcher into it.
  /// Returns its reference; throws as `LauncherStore::seed_initial`.
  static json seed_launcher(const std::filesystem::path& root, std::string_view manifest_text,
                            const std::filesystem::path& archive, const Progress& progress);

  /// What stands in the folder. Reads only: takes no lock, so it may run beside a client, and
  /// creates nothing. Throws `unsafe_path`, `unsupported_schema`, and what a damaged record of the
  /// bootstrap throws; an unreadable launcher store only leaves `launcher_build` empty.
  static NativeInstallStatus status(const std::filesystem::path& data_root);

  /// Removes the installation, finished or not; player data only on request. Can be run again after
  /// a failure, which leaves the marker and what was not yet removed. Throws `not_installed`,
  /// `busy`, `tavro_running`, `cancelled` (only before anything is removed), `file_remove`.
  static NativeUninstallResult uninstall(const NativeUninstallRequest& request,
                                         const NativeSetupCallbacks& callbacks);

  /// Creates and records a shortcut of the launcher, or of `game` when that is not empty, and
  /// returns its path. An empty `destination` means the usual place; an empty `name` the game or
  /// the product. A shortcut that stands there as recorded is fine. Throws `not_installed`, and as
  /// `native_menu_entry` and `create_owned_native_shortcut`.
  static std::filesystem::path create_shortcut(const std::filesystem::path& data_root,
                                               std::string_view game,
                                               const std::filesystem::path& destination,
                                               std::string_view name);

  /// The same, and whether a file was made for it.
  struct MadeShortcut {
    std::filesystem::path path;
    bool created = false;
  };
  static MadeShortcut make_shortcut(const std::filesystem::path& data_root, std::string_view game,
                                    const std::filesystem::path& destination,
                                    std::string_view name);

  /// Throws `not_installed`, and as `remove_owned_native_shortcuts`.
  static ShortcutRemoval remove_shortcuts(const std::filesystem::path& data_root);
};

}  // namespace tavro
