#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/maintenance_runtime.h"
#include "domain/json.h"

namespace tavro {

/// Answers a command that needs no launcher: `self shortcut`. The result is its document, null for
/// every other command. It runs to its end, so `cancelled` is not asked. Throws `usage`,
/// `invalid_identity`, and what the installer's shortcut operations throw.
json native_maintenance_control(const std::filesystem::path& root,
                                const std::vector<std::string>& arguments,
                                const std::function<bool()>& cancelled);

/// The console helper of a version, ready to take over. `as_json` changes nothing here. Throws
/// `cancelled` when that is asked for already, and as `MaintenanceRuntime::prepare`.
std::unique_ptr<MaintenanceRuntime> prepare_console_maintenance(
    LauncherStore& store, const json& reference, const std::filesystem::path& root,
    const std::function<bool()>& cancelled, bool as_json);

}  // namespace tavro
