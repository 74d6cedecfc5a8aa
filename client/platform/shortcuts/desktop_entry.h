#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "platform/shortcuts/shortcuts.h"

namespace tavro {

inline constexpr std::string_view kDesktopEntryExtension = ".desktop";

/// The text of a valid entry of the Desktop Entry Specification. It starts the executable with
/// `--gui`, for a game with `--launch` and the game behind it, and with `--data-dir` in front for
/// an executable that does not lie in the data folder. Any byte but a control character may stand
/// in the paths. Throws `shortcut_text`, `shortcut_path`, `unsupported_platform` on a system
/// without desktop entries, and what `validate_identifier` throws.
std::string linux_desktop_entry(const DesktopShortcut& shortcut);

/// The program, the name and the icon that an entry names; see `read_native_shortcut`.
std::optional<DesktopShortcut> read_linux_desktop_entry(std::string_view text);

/// Creates the entry, durably. Otherwise as `create_native_shortcut`, in an existing folder.
json create_linux_desktop_entry(const DesktopShortcut& shortcut, const std::filesystem::path& path);

/// The folder of the user's own menu entries, from the values of XDG_DATA_HOME and HOME; a value
/// that is not an absolute path counts as none, and links of the operating system are resolved.
/// Throws `user_path`, `unsupported_platform`, or as `resolve_system_links`.
std::filesystem::path linux_menu_directory(std::string_view xdg_data_home, std::string_view home);
std::filesystem::path linux_menu_directory();

/// The entry's path in that folder.
std::filesystem::path linux_menu_entry(const std::filesystem::path& root, std::string_view game);

}  // namespace tavro
