#include "launcher/start_marker.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <system_error>

#include "domain/input.h"
#include "domain/json.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long long marker_bytes = 4096;
/// A launcher that is still coming up has not failed.
constexpr std::int64_t young_seconds = 29;

std::int64_t unix_seconds() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

fs::path start_marker(const fs::path& root) { return root / "launcher" / "start-attempt.json"; }

StartMarker failed_starts(const fs::path& root) {
  try {
    const auto marker = parse_json(read_file(start_marker(root), marker_bytes), marker_bytes);
    const std::int64_t started_at = marker.value("started_at", std::int64_t{0});
    if (started_at >= unix_seconds() - young_seconds) return {};
    return {marker.value("manifest_sha256", ""), marker.value("attempts", std::int64_t{0})};
  } catch (const std::exception&) {
    // The count is a help, not a condition.
    return {};
  }
}

void mark_start(const fs::path& root, std::string_view manifest_sha256, std::int64_t attempts) {
  const json marker = {
      {"manifest_sha256", manifest_sha256}, {"started_at", unix_seconds()}, {"attempts", attempts}};
  try {
    replace_private_file(start_marker(root), marker.dump());
  } catch (const std::exception&) {
    // A start that cannot be counted is still a start.
  }
}

void clear_failed_starts(const fs::path& root) noexcept {
  try {
    native_files::remove_quietly(start_marker(root));
  } catch (const std::exception&) {
    // A marker that stays only costs the next start a look at its tree.
  }
}

}  // namespace tavro
