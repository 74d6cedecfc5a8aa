#pragma once

#include <string_view>

#include "documents/manifest.h"

namespace tavro {

/// Relative path of the stable entry point that a user starts, by platform; empty for a platform
/// that is not known.
std::string_view bootstrap_entry_point(std::string_view platform);

/// The only executables that a bootstrap may declare beside its entry point.
inline constexpr std::string_view kBootstrapWindowsGui = "bin/tavro-bootstrap-gui.exe";
inline constexpr std::string_view kBootstrapMacShortcut =
    "bin/TavroShortcut.app/Contents/MacOS/tavro-shortcut";
inline constexpr std::string_view kBootstrapMacShortcutPlist =
    "bin/TavroShortcut.app/Contents/Info.plist";

/// Proves that a snapshot is a bootstrap release for its platform, with fixed entry points and no
/// executable that it does not declare. Throws `launcher_incompatible` or `invalid_native_package`.
void validate_bootstrap_contract(const SnapshotManifest& manifest);

}  // namespace tavro
