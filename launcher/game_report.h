#pragma once

#include <string>
#include <vector>

#include "answer.h"
#include "games/game_library.h"

/// Games in the words and documents of this program.
namespace tavro::program {

/// The name of the game, or its identifier where no manifest tells one.
std::string game_title(const GameStatus& game);
/// "installed", "running", "preloaded", "not installed", "unreadable", ...
std::string game_state(const GameStatus& game);

/// `game_id`, `display_name`, `installed`, `running`, `state`, `channel`, `build_id`,
/// `previous_build_id`, `preloaded_build_id`, `deferral`, `last_start`, `foreign_versions`,
/// `problem`; what is not there is null.
json game_document(const GameStatus& game);

/// `session_id`, `build_id`, `started`, `ended` (milliseconds since 1970), `outcome`, `status`,
/// `ready_seen`.
json start_document(const GameStartSeen& seen);
/// How a start ended, in a sentence.
std::string start_sentence(const GameStartSeen& seen);

/// What can be done with a game now, and why not the rest.
struct GameAction {
  std::string name;
  /// With the game in its place.
  std::string command;
  /// Empty when it can be done.
  std::string obstacle;
};
std::vector<GameAction> game_actions(const GameStatus& game);

}  // namespace tavro::program
