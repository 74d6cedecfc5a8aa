#pragma once

#include <chrono>
#include <filesystem>

#include "installation/bootstrap_paths.h"

namespace tavro {

/// The work of `apply_pending_bootstrap_update` on an installed bootstrap. The new image is started
/// once from its staging folder, while nothing has moved and other bootstraps may run; then the
/// staged files are moved into place, `image`, which is new then, is started once more, and the
/// update is committed when that ends with 0 within `check_limit`. Otherwise, or when a staged file
/// is not what was staged, the old tree returns and the descriptor's digest is kept as refused.
///
/// So an image that does not start never stands where a user starts it, however a run ends. One
/// that starts from its staging folder and fails in place does stand there for the second test, up
/// to `check_limit`: a kill in that time is not survived, and signals that can be held are. They
/// are heard once the tree is whole, and then take their usual course.
///
/// An update stays waiting when its files could not be moved, when they could not all be moved
/// back, or when the process was asked to stop. With no update waiting, only the marker `old_files`
/// is looked after. The user is told what is given up, and of a test that takes longer than a
/// second.
///
/// Throws `busy` while another process stages, applies or runs the bootstrap, and what reading and
/// writing the records throws. What is on disk then is for the next call to go on from.
void apply_staged_bootstrap(const BootstrapPaths& paths, const std::filesystem::path& image,
                            std::chrono::milliseconds check_limit);

}  // namespace tavro
