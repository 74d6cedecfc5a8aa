#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "platform/shortcuts/shortcuts.h"

namespace tavro {

inline constexpr std::string_view kLaunchDocumentExtension = ".tavro-launch";

/// A launch document is a small file that a helper inside the bootstrap opens; nothing in it is
/// executable. At most 32768 bytes of JSON with exactly six keys.
///
/// The text. Throws `shortcut_text`, `shortcut_path`, `size_limit`, and what `validate_identifier`
/// throws.
std::string macos_launch_document(const DesktopShortcut& shortcut);

/// Reads such a text, which may come from anywhere. Throws `shortcut_document`,
/// `unsupported_schema`, and what `parse_json` and `macos_launch_document` throw.
DesktopShortcut parse_macos_launch_document(std::string_view text);

/// Makes an application the one that opens launch documents; false when it cannot be.
using HandlerRegistration = std::function<bool(const std::string&)>;
/// The system's own registration.
const HandlerRegistration& native_handler_registration();

/// Creates the document, durably, in an existing folder. Otherwise as `create_native_shortcut` and
/// `register_macos_shortcut_handler`.
json create_macos_launch_document(
    const DesktopShortcut& shortcut, const std::filesystem::path& path,
    const HandlerRegistration& registration = native_handler_registration());

/// Registers the application beside an installed bootstrap, "bin/tavro-bootstrap". Throws
/// `shortcut_bootstrap` for another program, `shortcut_path` or `unsafe_path` for an application
/// that is not whole, `shortcut_api` when the system refuses.
void register_macos_shortcut_handler(
    const std::filesystem::path& bootstrap,
    const HandlerRegistration& registration = native_handler_registration());

/// The user's Desktop. Throws `user_path`, or as `native_menu_directory`.
std::filesystem::path macos_menu_directory();

}  // namespace tavro
