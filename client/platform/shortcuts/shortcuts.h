#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// What a shortcut points at.
struct DesktopShortcut {
  /// The bootstrap to start.
  std::filesystem::path executable;
  /// The data folder that it serves.
  std::filesystem::path data_root;
  /// Game identifier; empty for a shortcut of the launcher itself.
  std::string game;
  /// Display name, 1 to 512 bytes.
  std::string name;
  /// An image that desktops show; empty for the usual one. A form without images ignores it.
  std::filesystem::path icon = {};
};

/// Of the form that this system has, with the dot.
std::string_view native_shortcut_extension() noexcept;

/// Where shortcuts go by default; the folder need not exist. Throws `user_path` when the
/// environment does not tell, `shortcut_text` or `shortcut_path` for what cannot be used.
std::filesystem::path native_menu_directory();

/// The path of the shortcut of this data folder and game (empty for the launcher). Two data folders
/// never share one; `name` may have a say on a system that shows file names. Throws as
/// `native_menu_directory`, `validate_identifier`, `path_identity::directory_key`.
std::filesystem::path native_menu_entry(const std::filesystem::path& root, std::string_view game,
                                        std::string_view name);

/// The bytes of the shortcut's file. Throws `shortcut_path`, `shortcut_text`, and what the form adds.
std::string native_shortcut_text(const DesktopShortcut& shortcut);

/// What such bytes, which may come from anywhere, say of themselves: the program and the name, and
/// of the rest what the form tells. It proves nothing before the same bytes come of it. Nothing for
/// bytes that do not even say that.
std::optional<DesktopShortcut> read_native_shortcut(std::string_view text);

/// Proves that a shortcut can lie at the path, whose last folder is created if it is the default
/// one. Throws as `create_native_shortcut`.
void require_native_shortcut_place(const std::filesystem::path& path);

/// Creates the shortcut, and the default folder if that is where it goes and it is missing. Never
/// writes over anything, and changes nothing on failure but for that folder. Returns the form's
/// document. Throws `shortcut_path`, `shortcut_text`, `unsafe_path`, `already_exists`, and what
/// `atomic_create` throws.
json create_native_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path);

}  // namespace tavro
