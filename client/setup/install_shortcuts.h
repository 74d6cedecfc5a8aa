#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "installation/data_folder.h"
#include "platform/shortcuts/shortcuts.h"
#include "setup/native_install.h"

namespace tavro {

struct NativePackage;

/// Creates and records the shortcut. True unless the very file stood there already. A refusal names
/// the file, or the link on the way to it; otherwise as `create_owned_native_shortcut`.
bool create_named_shortcut(const DesktopShortcut& shortcut, const std::filesystem::path& path);

/// What follows a commit and fails nothing: the shortcuts and the entry among the system's
/// installed programs. A repair brings back what is missing and takes in what lost its owner; an
/// install makes the launcher's shortcut, unless a front end makes that of the brand's game
/// instead. What was done, and the first failure, are told in `result`.
void make_shortcuts(const DataPaths& paths, const NativeInstallRequest& request,
                    const NativePackage& package, NativeInstallResult& result);

/// Removes the shortcuts of an installation that goes. Answers those that stay: changed by the
/// user, not to be read or removed, or without a ledger that tells whose they are. Throws nothing:
/// shortcuts never stop an uninstall.
std::vector<std::filesystem::path> remove_all_shortcuts(const DataPaths& paths) noexcept;

}  // namespace tavro
