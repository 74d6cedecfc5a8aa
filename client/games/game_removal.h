#pragma once

#include <string>
#include <vector>

#include "games/game_store.h"

namespace tavro {

enum class PlayerData { kept, removed };

struct GameRemoval {
  /// Folders of builds that hold files of somebody else, and therefore stay with these.
  std::vector<std::string> kept;
};

/// Takes the game away: its builds, documents, downloads, sessions and record. Saves and state stay
/// unless the player gives them up; they go last, when the game is gone. `writer` is settled as far
/// as that can be done. Throws `game_running` with nothing changed, and `unsafe_path` for what is
/// no folder of the system's any more, which stays. After any failure a further call completes it.
GameRemoval remove_game(GameWriter& writer, PlayerData saves);

}  // namespace tavro
