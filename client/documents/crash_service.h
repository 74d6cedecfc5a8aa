#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// Where a distributor takes reports of crashes, and what a player consents to who sends one: the
/// repository target `kTarget`.
struct CrashService {
  static constexpr std::string_view kTarget = "service/crash-reports.json";
  static constexpr std::size_t kMaxBytes = 131072;

  /// `https://`, a host, and perhaps a path; at most 2048 bytes.
  std::string url;
  /// An identifier; another one makes every earlier consent void.
  std::string consent_version;
  /// 1 to 16384 bytes.
  std::string consent_text;
  /// Only somebody who says to be 16 or older can consent.
  bool minimum_age = false;

  /// Proves the whole document or throws `unsupported_schema` (a newer one),
  /// `invalid_service_document` or `invalid_identity`. Whether the URL is one for a service is left
  /// to the transport.
  static CrashService parse(const json& document);
  json to_json() const;

  bool operator==(const CrashService&) const = default;
};

}  // namespace tavro
