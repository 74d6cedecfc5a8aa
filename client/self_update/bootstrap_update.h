#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/files/file_locks.h"

namespace tavro {

/// The data folder that an installed bootstrap serves, told from its image's path alone; nothing
/// for an image that is not installed. Throws `unsafe_path` unless the path is absolute and normal,
/// and `native_install_trust` for another image in a bootstrap's folder.
std::optional<std::filesystem::path> installed_data_root(const std::filesystem::path& image);

/// The lock that every running bootstrap shares: whoever needs the installation to itself takes it
/// exclusively. Null for an image that is not installed. While another bootstrap puts an update
/// into place this waits for it, for at most 12 seconds. Throws `native_install_incomplete`, `busy`
/// while the installation is being changed, and as `installed_data_root` and `NativeFileLock`.
std::unique_ptr<NativeFileLock> bootstrap_lifetime(const std::filesystem::path& image);

/// Whether a staged bootstrap update waits for the next start.
bool bootstrap_update_pending(const std::filesystem::path& root);

/// What keeps the waiting update from the next start, as a sentence for the user that names the
/// file and what to do about it; empty when nothing is known to. Never throws.
std::string bootstrap_update_obstacle(const std::filesystem::path& root);

/// Tests a waiting update of the bootstrap, puts it into place, tests it again, each time for at
/// most 10 seconds, and commits the update or puts everything back; see `apply_staged_bootstrap`.
/// This process goes on as the image that it was started from. The first call of a bootstrap,
/// before it holds its lifetime lock, which this needs for itself. Never throws a `std::exception`:
/// a failing update stops no start, and standard error says why it waits. In the test start of a
/// new image the process ends here, with 0.
///
/// Whatever cuts this off, a bootstrap that starts stands at the image's path, and its next start
/// goes on. A tree that holds files of both releases is completed and tested; when the test fails,
/// or a staged file is not what it was, all of it goes back, also what an earlier run has moved
/// (the rules stand at `BootstrapMoves`), and only then the update is given up.
void apply_pending_bootstrap_update(const std::filesystem::path& image);

}  // namespace tavro
