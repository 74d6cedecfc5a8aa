#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Of a list of notices.
inline constexpr std::size_t kMaxNotices = 64;

enum class NoticeSeverity { information, warning, critical };

std::string_view severity_name(NoticeSeverity severity);

/// What a distributor wants its players to read.
struct Notice {
  std::string id;
  NoticeSeverity severity = NoticeSeverity::information;
  /// 1 to 200 bytes on one line.
  std::string title;
  /// 1 to 4096 bytes.
  std::string text;
  /// Seconds since 1970: when it is to be shown, and from when on no more. `from` < `until`.
  std::uint64_t from = 0;
  std::uint64_t until = 0;

  bool holds(std::uint64_t now) const { return from <= now && now < until; }
  bool operator==(const Notice&) const = default;
};

/// All notices of a distributor: the repository target `kTarget`.
struct Notices {
  static constexpr std::string_view kTarget = "service/notices.json";
  static constexpr std::size_t kMaxBytes = 1048576;

  /// At most `kMaxNotices`, each with its own identifier.
  std::vector<Notice> notices;

  /// What is to be shown now, the gravest first and then the newest.
  std::vector<Notice> in_force(std::uint64_t now) const;

  /// Proves the whole document or throws `unsupported_schema` (a newer one),
  /// `invalid_service_document`, `invalid_identity` or `size_limit`.
  static Notices parse(const json& document);
  json to_json() const;

  bool operator==(const Notices&) const = default;
};

}  // namespace tavro
