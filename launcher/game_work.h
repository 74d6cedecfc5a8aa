#pragma once

#include <string>

#include "answer.h"
#include "context.h"
#include "games/game_library.h"

/// What several commands on games have in common.
namespace tavro::program {

/// `game_id`, `build_id`, `active`, `staged`, `changed`.
json change_document(const std::string& game, const GameChange& change);

/// Tells what bringing in a build came to, and gives the build before it up where the settings say
/// so. `done` is what happened to the game, such as "installed".
Answer change_answer(Context& context, const GameLibrary& library, const GameChange& change,
                     const std::string& done);

/// The build that is published under this identifier in some channel, the newest there. Throws
/// `build_not_offered`.
GameRequest request_for_build(Context& context, const GameLibrary& library,
                              const std::string& build);

/// Starts the game once `before` is done, and puts both answers together.
Answer launch_after(Context& context, Answer before);

}  // namespace tavro::program
