#include "game_work.h"

#include <utility>

#include "domain/error.h"
#include "handlers.h"
#include "preferences/settings.h"

namespace tavro::program {

json change_document(const std::string& game, const GameChange& change) {
  return {{"game_id", game},
          {"build_id", change.build_id},
          {"active", change.active},
          {"staged", change.staged},
          {"changed", change.changed}};
}

Answer change_answer(Context& context, const GameLibrary& library, const GameChange& change,
                     const std::string& done) {
  const std::string& game = context.subject();
  if (change.active && change.changed && !settings_or_defaults(context.root).keep_previous)
    library.forget_previous(game);
  std::string text = "The game " + game + " is ";
  if (change.staged)
    text = "Build " + change.build_id + " of " + game + " is ready, and is put into use when " +
           "the game is started the next time.";
  else if (change.changed)
    text += done + ": build " + change.build_id + ".";
  else
    text += "up to date: build " + change.build_id + ".";
  return {change_document(game, change), std::move(text)};
}

GameRequest request_for_build(Context& context, const GameLibrary& library,
                              const std::string& build) {
  const GameCatalog catalog = library.available(context.tuf());
  const auto game = catalog.games.find(context.subject());
  if (game != catalog.games.end())
    for (const auto& [channel, offered] : game->second.channels)
      if (offered.build_id == build)
        return {.manifest_sha256 = offered.manifest_sha256, .progress = context.progress()};
  fail("build_not_offered", "The repository does not offer build " + build + " of " +
                                context.subject() + " as the newest of any channel");
}

Answer launch_after(Context& context, Answer before) {
  Answer launched = launch_game(context);
  before.document["launch"] = std::move(launched.document);
  before.text += "\n" + launched.text;
  before.status = launched.status;
  return before;
}

}  // namespace tavro::program
