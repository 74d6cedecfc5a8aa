#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavro {

/// What became of the shortcuts of a data folder without a ledger.
struct FoundShortcuts {
  /// Their bytes are those that this installation writes by itself: they are recorded from now on.
  std::vector<std::filesystem::path> adopted;
  /// They have the name of a shortcut of this folder, but bytes that nobody can explain.
  std::vector<std::filesystem::path> unknown;
};

/// Sets a damaged ledger aside, and says where; empty for one that can be read, and for a newer
/// version's, which stays. Throws `file_write`, what `read_file` throws for a reason that is not in
/// the file, and as `FileLock` and `sync_directory`.
std::string set_aside_damaged_ledger(const std::filesystem::path& root);

/// What stands in the default folder under the name of a shortcut of this data folder, whatever it
/// is. Throws as `native_menu_entry` and `children`.
std::vector<std::filesystem::path> named_for(const std::filesystem::path& root);

/// Where the ledger is lost, looks there for shortcuts of this data folder, and records those that
/// are provably its own: with the product's name or the game's identifier, and the image of the
/// installation or the usual one. With a ledger nothing is looked for, since it tells of all: what
/// else stands there the user has changed. Throws as `native_menu_entry`, `native_shortcut_text`
/// and `atomic_write`.
FoundShortcuts adopt_native_shortcuts(const std::filesystem::path& root,
                                      const std::filesystem::path& executable);

/// Makes recorded shortcuts that lead to another data folder lead to this one, which was renamed or
/// copied: what led to a folder that is gone is replaced, what leads to one that works is left to
/// it. Shortcuts that the user changed stay. At a place that the user chose, one that led to a
/// folder that is gone is removed and stays recorded, for `restore_owned_native_shortcuts` to bring
/// back. Answers the paths of the new ones. Throws as `create_owned_native_shortcut`.
std::vector<std::filesystem::path> follow_moved_folder(const std::filesystem::path& root,
                                                       const std::filesystem::path& executable);

}  // namespace tavro
