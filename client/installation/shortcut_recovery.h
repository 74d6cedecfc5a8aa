#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavro {

/// What became of the shortcuts that the ledger does not tell of.
struct FoundShortcuts {
  /// Their bytes are those that this installation writes: they are recorded from now on.
  std::vector<std::filesystem::path> adopted;
  /// They have the name of a shortcut of this folder, but bytes that nobody can explain.
  std::vector<std::filesystem::path> unknown;
};

/// Sets a ledger aside that cannot be read, and says where; empty for one that can be, and for a
/// newer version's, which stays. Throws `file_write`, and as `FileLock` and `sync_directory`.
std::string set_aside_damaged_ledger(const std::filesystem::path& root);

/// What stands in the default folder under the name of a shortcut of this data folder, whatever it
/// is. Throws as `native_menu_entry` and `children`.
std::vector<std::filesystem::path> named_for(const std::filesystem::path& root);

/// Looks there for shortcuts of this data folder that are not recorded, as a crash
/// or a lost ledger leaves them, and records those that are provably its own. Throws as
/// `owned_native_shortcuts`, `native_menu_entry` and `atomic_write`.
FoundShortcuts adopt_native_shortcuts(const std::filesystem::path& root,
                                      const std::filesystem::path& executable);

/// Makes recorded shortcuts that lead to another data folder lead to this one, which was renamed or
/// copied: what led to a folder that is gone is replaced, what leads to one that works is left to
/// it. Shortcuts that the user changed stay. Answers the paths of the new ones. Throws as
/// `create_owned_native_shortcut`.
std::vector<std::filesystem::path> follow_moved_folder(const std::filesystem::path& root,
                                                       const std::filesystem::path& executable);

}  // namespace tavro
