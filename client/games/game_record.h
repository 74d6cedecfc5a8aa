#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Bytes of a record, as whoever starts a game without this library reads it.
inline constexpr std::size_t kGameRecordBytes = 524288;
/// Versions that wait to be taken away, at most; a removal adds those that were in use.
inline constexpr std::size_t kMaxRetiredVersions = 32;

/// One build of a game on disk. Its JSON is also the `reference` of the documents of an install.
struct GameVersion {
  /// The name of its folder, made anew for each install.
  std::string version;
  std::string build_id;
  /// SHA-256 of the compact form of the manifest, which is stored under this name.
  std::string manifest_ref;
  /// Where the manifest came from.
  std::string manifest_target;

  /// Throws `invalid_state`, `invalid_identity`, `unsafe_path`.
  static GameVersion parse(const json& value);
  json to_json() const;

  bool operator==(const GameVersion&) const = default;
};

/// A build that the player puts off.
struct GameDeferral {
  std::string build_id;
  /// Seconds since 1970; 0 until another build comes.
  std::uint64_t until = 0;

  bool holds(std::string_view build, std::uint64_t now) const {
    return build == build_id && (until == 0 || now < until);
  }
  bool operator==(const GameDeferral&) const = default;
};

/// How a start of a game ended.
enum class GameOutcome {
  /// Status 0, and where the game reports its session, it said goodbye.
  clean,
  /// Another status, or 0 without the goodbye that the game promised.
  exited,
  /// By a signal.
  killed,
  /// The game must report that it is ready, and ended before it did.
  never_ready,
  /// Whoever started it went away first.
  unknown,
};

std::string_view outcome_name(GameOutcome outcome);

/// What was seen of a start.
struct GameStartSeen {
  std::string session_id;
  std::string build_id;
  /// Milliseconds since 1970.
  std::uint64_t started = 0;
  std::uint64_t ended = 0;
  GameOutcome outcome = GameOutcome::unknown;
  /// As a shell tells it: 128 plus the number of a signal.
  int status = 0;
  bool ready_seen = false;

  static GameStartSeen parse(const json& value);
  json to_json() const;
  bool operator==(const GameStartSeen&) const = default;
};

/// What becomes of saves and state when a game is removed.
enum class PlayerData { kept, removed };

/// What a data folder knows of one game.
struct GameRecord {
  std::string game_id;
  std::string channel;
  std::optional<GameVersion> active;
  /// The way back, which needs no network.
  std::optional<GameVersion> previous;
  /// Staged whole, and not in use yet.
  std::optional<GameVersion> preload;
  /// To be taken away as soon as nothing runs from them.
  std::vector<GameVersion> retired;
  std::optional<GameDeferral> deferral;
  std::optional<GameStartSeen> last_start;
  /// A removal began, with this wish; nothing starts any more.
  std::optional<PlayerData> removing;

  /// Throws `unsupported_schema` for another version's record, which is to be left alone, and
  /// `invalid_state` for a damaged one or that of another game.
  static GameRecord parse(const json& document, std::string_view game_id);
  json to_json() const;

  bool refers_to(std::string_view manifest_ref) const;
  bool operator==(const GameRecord&) const = default;
};

}  // namespace tavro
