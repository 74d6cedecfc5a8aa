#pragma once

#include <string>
#include <vector>

#include "games/game_store.h"

namespace tavro {

struct GameRemoval {
  /// Folders of builds that hold files of somebody else, and therefore stay with these. A link that
  /// somebody put in a build's place counts as well.
  std::vector<std::string> kept;
  /// Those of them that stay whole because their manifest was lost or damaged, so that nothing
  /// tells what in them is the game's: to be removed by hand.
  std::vector<std::string> unproved;
};

/// Takes the game away: its builds, documents, downloads, sessions and record. Saves and state stay
/// unless the player gives them up; they go last, when the game is gone. `writer` is settled as far
/// as that can be done. Throws `game_running`, and `unsafe_path` for player data that are no folder
/// any more, with nothing changed. After any failure a further call completes it.
GameRemoval remove_game(GameWriter& writer, PlayerData saves);

/// Saves and state that a removal set aside, and that an interruption left.
bool has_set_aside_player(const GamePaths& paths);
/// Takes these away. Throws `file_remove` with the folder of which something is left.
void remove_set_aside_player(const GamePaths& paths);

}  // namespace tavro
