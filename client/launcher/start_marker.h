#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace tavro {

/// How often in a row a version's window was started without having come up.
struct StartMarker {
  /// Empty when nothing is known.
  std::string manifest_sha256;
  std::int64_t attempts = 0;
};

/// The file that counts windowed starts; a launcher that is up removes it. Plain path arithmetic.
std::filesystem::path start_marker(const std::filesystem::path& root);

/// The count that an earlier start left, if it is old enough (30 seconds) to have failed. A start
/// of just now, and a marker that cannot be read, count as none. Never throws a `std::exception`.
StartMarker failed_starts(const std::filesystem::path& root);

/// Writes the marker with this moment in it, without a sync: a crash may lose one count. Failures
/// are ignored, since they must not stop a start.
void mark_start(const std::filesystem::path& root, std::string_view manifest_sha256,
                std::int64_t attempts);

/// Forgets the failed starts, so that the next one counts from the beginning. Failures are ignored.
void clear_failed_starts(const std::filesystem::path& root) noexcept;

}  // namespace tavro
