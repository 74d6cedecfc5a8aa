#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "launcher/launcher_store.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// Runs a launcher of the data folder `root`: a waiting candidate under supervision, else the
/// newest version that works, which replaces this process. In the interface "cli" it reads the
/// launcher's global options and answers help, shortcut and maintenance commands itself; in "gui"
/// the arguments are opaque, but for a `--data-dir` before the first "--", which is refused.
///
/// `startup_limit` is 1 to 30000 milliseconds: how long a candidate has when an active version can
/// take its place; the first launcher of a store always has 30 seconds. The caller's `lifetime`
/// lock stays the caller's and may be null; a replaced process drops it.
///
/// Returns an exit status: of the candidate after its end, or 0 for what was answered here. Throws
/// `launcher_interface`, `launcher_health` for a bad limit, `usage` and the other codes of the
/// command line; what `start_candidate` throws; and, when no version can be started, the last
/// version's failure or `launcher_damaged`. Versions that fail are told on standard error.
int run_launcher_bootstrap(const std::filesystem::path& root, std::string_view interface,
                           const std::vector<std::string>& arguments,
                           std::chrono::milliseconds startup_limit,
                           std::unique_ptr<NativeFileLock>* lifetime);

/// A launcher's arguments: `--data-dir`, the data folder, and what is passed on to it.
std::vector<std::string> launcher_arguments(const std::filesystem::path& root,
                                            const std::vector<std::string>& forwarded);

}  // namespace tavro
