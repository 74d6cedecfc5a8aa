#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "games/game_store.h"

namespace tavro {

/// Of the output of a game this much is kept, in bytes.
inline constexpr std::size_t kGameOutputBytes = 65536;

/// The file of a session's output, in its folder.
std::filesystem::path game_output_path(const std::filesystem::path& session);

/// Stores durably that a session began, before any code of the game runs, and how it ended.
void store_game_start(const std::filesystem::path& session, const GameStartSeen& seen);
void store_game_end(const std::filesystem::path& session, const GameStartSeen& seen);

/// What the last start of the game was seen to do, from its session folder; nothing when it never
/// started. A start whose observer went away is `unknown`.
std::optional<GameStartSeen> last_game_start(const GameStore& store);

/// The output that was kept of a session; empty when none was.
std::string kept_game_output(const GameStore& store, std::string_view session_id);

/// Takes old sessions away: all but the newest 8 that have ended. One without an end on paper has
/// ended when nothing runs, and so has one that cannot be read. Best effort.
void prune_game_sessions(const GameStore& store);

/// Puts what was seen of the last start into the record, and prunes. Does not save.
void settle_game_sessions(GameWriter& writer);

}  // namespace tavro
