#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

enum class ServiceState { operational, degraded, maintenance, outage };

std::string_view service_state_name(ServiceState state);

/// How the distributor's services do: the repository target `kTarget`. It says itself how long it
/// counts, so that an old one is not taken for today's.
struct ServiceStatus {
  static constexpr std::string_view kTarget = "service/status.json";
  static constexpr std::size_t kMaxBytes = 32768;
  /// The longest span between `issued` and `valid_until`, in seconds: 31 days.
  static constexpr std::uint64_t kLongestSpan = 2678400;

  ServiceState state = ServiceState::operational;
  /// At most 2000 bytes.
  std::string text;
  /// Seconds since 1970. `issued` < `valid_until`.
  std::uint64_t issued = 0;
  std::uint64_t valid_until = 0;

  /// Whether it says nothing of this moment any more.
  bool is_stale(std::uint64_t now) const { return now >= valid_until; }

  /// Proves the whole document or throws `unsupported_schema` (a newer one) or
  /// `invalid_service_document`.
  static ServiceStatus parse(const json& document);
  json to_json() const;

  bool operator==(const ServiceStatus&) const = default;
};

}  // namespace tavro
