#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Bounds of the list, of the games that one agreement names, and of its text in bytes.
inline constexpr std::size_t kMaxAgreements = 32;
inline constexpr std::size_t kMaxAgreementGames = 10000;
inline constexpr std::size_t kMaxAgreementText = 262144;

/// The repository target of a text.
std::string agreement_text_target(std::string_view id, std::string_view version);

/// What a player has to agree to before some games start.
struct Agreement {
  std::string id;
  /// An identifier too; another one asks every player again.
  std::string version;
  /// 1 to 200 bytes on one line.
  std::string title;
  /// Of the text, which lies under `agreement_text_target`.
  std::uint64_t text_length = 0;
  std::string text_sha256;
  /// Only somebody who says to be 16 or older can agree.
  bool minimum_age = false;
  /// Every game needs it; otherwise those that are named.
  bool every_game = false;
  std::set<std::string, std::less<>> games;

  bool is_needed_by(std::string_view game_id) const {
    return every_game || games.contains(game_id);
  }
  bool operator==(const Agreement&) const = default;
};

/// All agreements of a distributor: the repository target `kTarget`.
struct Agreements {
  static constexpr std::string_view kTarget = "service/agreements.json";
  static constexpr std::size_t kMaxBytes = 4194304;

  /// By identifier.
  std::map<std::string, Agreement, std::less<>> agreements;

  /// Throws `agreement_not_found`.
  const Agreement& at(std::string_view id) const;

  /// Proves the whole document or throws `unsupported_schema` (a newer one),
  /// `invalid_service_document`, `invalid_identity`, `invalid_manifest` (a digest) or `size_limit`.
  static Agreements parse(const json& document);
  json to_json() const;

  bool operator==(const Agreements&) const = default;
};

}  // namespace tavro
