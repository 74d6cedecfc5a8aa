#pragma once

#include <chrono>
#include <filesystem>

namespace tavro {

class HeldSignals;

/// Set, and not empty, in the test start of a new bootstrap, which then ends with 0 at once.
inline constexpr char bootstrap_start_check_environment[] = "TAVRO_BOOTSTRAP_START_CHECK";

/// What a test start came to: `stopped` when this process was asked to stop meanwhile, `unmade`
/// when no process could be made at all. Neither tells anything about the image;
/// in its place, `unmade` counts as a failure all the same.
enum class StartVerdict { passed, failed, stopped, unmade };

/// The test start of a new bootstrap: `image` is started once and must end with 0 within `limit`; a
/// running one is stopped. Nothing is left running. The image shares the console, so that what
/// stops this process there stops it too. Whoever waits is told after a second.
StartVerdict check_start(const std::filesystem::path& image, std::chrono::milliseconds limit,
                         const HeldSignals& signals);

}  // namespace tavro
