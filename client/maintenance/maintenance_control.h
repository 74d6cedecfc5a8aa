#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "maintenance/maintenance_runtime.h"

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
    LauncherStore& store, const LauncherReference& reference, const std::filesystem::path& root,
    const std::function<bool()>& cancelled, bool as_json);
std::unique_ptr<MaintenanceRuntime> prepare_console_maintenance(
    LauncherStore& store, const json& reference, const std::filesystem::path& root,
    const std::function<bool()>& cancelled, bool as_json);

/// The windowed helper of the version whose windowed launcher is the running image, ready to take
/// over. The store is the one that the image lies in. Throws `maintenance_unavailable` for an image
/// outside every store, `launcher_identity` for one that is not this build's windowed launcher,
/// and what `reject_staged_image`, the store and `MaintenanceRuntime::prepare` throw.
std::unique_ptr<MaintenanceRuntime> prepare_gui_maintenance(const std::filesystem::path& root,
                                                            std::string_view build_id,
                                                            MaintenanceProgress progress);

/// Hands this process, a console launcher of build `build_id`, over to the helper for a command
/// that `maintenance_arguments` knows. Returns only by throwing: `usage`,
/// `maintenance_unavailable` on a candidate start (whose bootstrap waits for this process, while
/// the removal waits for the bootstrap) and outside every store, `launcher_identity`, `cancelled`,
/// `maintenance_failed`, and what the store, `prepare` and `replace_process` throw.
///
/// A launcher asks it before it attaches, since that forgets that this is a candidate start. `root`
/// is absolute here and above: the helper starts in its own folder.
[[noreturn]] void run_cli_maintenance(const std::filesystem::path& root,
                                      const std::vector<std::string>& arguments,
                                      std::string_view build_id,
                                      const std::function<bool()>& cancelled);

}  // namespace tavro
