#pragma once

#include <chrono>
#include <filesystem>

#include "installation/bootstrap_paths.h"

namespace tavro {

/// Set, and not empty, in the test start of a new bootstrap, which then ends with 0 at once.
inline constexpr char bootstrap_start_check_environment[] = "TAVRO_BOOTSTRAP_START_CHECK";

/// The work of `apply_pending_bootstrap_update` on an installed bootstrap: moves the staged files
/// into place, starts `image`, which is new then, once, and commits the update when that ends with
/// 0 within `check_limit`. Otherwise, or when a staged file is not what was staged, the old tree
/// returns and the descriptor's digest is kept as refused.
///
/// An update stays waiting when its files could not be moved, when they could not all be moved
/// back, or when Ctrl+C came during the check; it is heard only once the tree is whole, and then
/// takes its usual course. With no update waiting, only the marker `old_files` is looked after.
///
/// Throws `busy` while another process stages, applies or runs the bootstrap, and what reading and
/// writing the records throws. What is on disk then is for the next call to go on from.
void apply_staged_bootstrap(const BootstrapPaths& paths, const std::filesystem::path& image,
                            std::chrono::milliseconds check_limit);

}  // namespace tavro
