#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/json.h"
#include "platform/shortcuts/shortcuts.h"

namespace tavro {

/// A shortcut that this system created, as it was then.
struct OwnedShortcut {
  std::string path;
  /// Empty for the launcher.
  std::string game;
  std::string name;
  /// The digest of the file's bytes: a file with other bytes is no longer the system's.
  std::string sha256;
};

/// What became of the recorded shortcuts.
struct ShortcutRemoval {
  std::vector<std::filesystem::path> removed;
  /// Changed by the user; they stay.
  std::vector<std::filesystem::path> changed;
};

/// The ledger of a data folder, "native/shortcuts.json": at most 262144 bytes and 128 entries.
/// Every change runs under "native/shortcuts.lock", which is waited for. A ledger that cannot be
/// read fails every operation with `shortcut_ledger` or a code of `read_file`, and stays as it is;
/// a path in it that cannot be one fails with `shortcut_text` or `shortcut_path`.
///
/// Records the shortcut and creates it, or finds it already there, recorded or not. The result has
/// `schema_version` 1, `created`, `path` and `game_id`. A file that is not provably the system's is
/// never written over: `already_exists`. Throws `native_install_incomplete`, `shortcut_path` for a
/// destination in the data folder, `size_limit` for a 129th shortcut or one for which the ledger
/// has no bytes left, and what `create_native_shortcut` throws. A crash at any point may leave an
/// entry without its file, but no file without its entry.
json create_owned_native_shortcut(const DesktopShortcut& shortcut,
                                  const std::filesystem::path& path);

/// The entries; takes no lock.
std::vector<OwnedShortcut> owned_native_shortcuts(const std::filesystem::path& root);

/// Removes the shortcuts that are still as recorded. All others belong to the user from then on;
/// those that were deleted are not told. What cannot be read or removed stays recorded; it does not
/// keep the others, and its failure is thrown at the end.
ShortcutRemoval remove_owned_native_shortcuts(const std::filesystem::path& root);

/// The same before the ledger itself goes: what cannot be read or removed counts as changed, and
/// the ledger stays as it is for a further run.
ShortcutRemoval release_owned_native_shortcuts(const std::filesystem::path& root);

/// Brings back the recorded shortcuts at whose paths nothing stands, for this executable. Answers
/// their paths. One that fails does not keep the others; its failure is thrown at the end.
std::vector<std::filesystem::path> restore_owned_native_shortcuts(
    const std::filesystem::path& root, const std::filesystem::path& executable);

}  // namespace tavro
