#include "game_report.h"

#include <optional>

#include "text_layout.h"

namespace tavro::program {
namespace {

constexpr std::uint64_t milliseconds_a_second = 1000;

json build_or_null(const std::optional<GameVersion>& version) {
  return version ? json(version->build_id) : json();
}

}  // namespace

std::string game_title(const GameStatus& game) {
  return game.display_name.empty() ? game.game_id : game.display_name;
}

std::string game_state(const GameStatus& game) {
  if (!game.problem.empty()) return "unreadable";
  if (game.record && game.record->removing) return "being removed";
  if (game.running) return "running";
  if (game.installed) return "installed";
  return game.record && game.record->preload ? "preloaded" : "not installed";
}

json start_document(const GameStartSeen& seen) { return seen.to_json(); }

std::string start_sentence(const GameStartSeen& seen) {
  std::string text =
      "Build " + seen.build_id + " started " + time_text(seen.started / milliseconds_a_second);
  if (seen.ended == 0) return text + "; its end was not seen.";
  text += " and ran " + duration_text((seen.ended - seen.started) / milliseconds_a_second);
  const std::string status = std::to_string(seen.status);
  switch (seen.outcome) {
    case GameOutcome::clean:
      return text + "; it ended well.";
    case GameOutcome::exited:
      return text + "; it ended with status " + status + ".";
    case GameOutcome::killed:
      return text + "; it was killed (status " + status + ").";
    case GameOutcome::never_ready:
      return text + "; it ended before it was ready.";
    case GameOutcome::unknown:
      break;
  }
  return text + "; how it ended was not seen.";
}

json game_document(const GameStatus& game) {
  json document = {{"game_id", game.game_id},
                   {"display_name", game_title(game)},
                   {"installed", game.installed},
                   {"running", game.running},
                   {"state", game_state(game)},
                   {"foreign_versions", game.foreign_versions},
                   {"problem", game.problem.empty() ? json() : json(game.problem)}};
  for (const char* key :
       {"channel", "build_id", "previous_build_id", "preloaded_build_id", "deferral"})
    document[key] = nullptr;
  document["last_start"] = game.last_start ? start_document(*game.last_start) : json();
  if (!game.record) return document;
  const GameRecord& record = *game.record;
  document["channel"] = record.channel;
  document["build_id"] = build_or_null(record.active);
  document["previous_build_id"] = build_or_null(record.previous);
  document["preloaded_build_id"] = build_or_null(record.preload);
  if (record.deferral)
    document["deferral"] = {{"build_id", record.deferral->build_id},
                            {"until", record.deferral->until}};
  return document;
}

std::vector<GameAction> game_actions(const GameStatus& game) {
  const std::string& id = game.game_id;
  const std::string unread = game.problem.empty() ? "" : "Its record cannot be read";
  const std::string present = !unread.empty()  ? unread
                              : game.installed ? ""
                                               : "The game is not installed";
  const std::string still = !present.empty() ? present : game.running ? "The game is running" : "";
  const bool has_previous = game.record && game.record->previous;
  const bool has_preload = game.record && game.record->preload;
  const auto unless = [](bool condition, const std::string& obstacle, const char* reason) {
    return !obstacle.empty() ? obstacle : condition ? std::string() : std::string(reason);
  };
  return {
      {"install", "install " + id, unless(!game.installed, unread, "The game is installed")},
      {"launch", "launch " + id, present},
      {"update", "update " + id, present},
      {"preload", "preload " + id, unread},
      {"discard the preload",
       "preloads discard " + id + " --build " +
           (has_preload ? game.record->preload->build_id : std::string("BUILD")),
       unless(has_preload, unread, "No build is preloaded")},
      {"verify", "verify " + id, present},
      {"repair", "repair " + id, still},
      {"rollback", "rollback " + id, unless(has_previous, still, "There is no previous build")},
      {"change the channel", "channel set " + id + " CHANNEL", present},
      {"open its folder", "open " + id + " content", present},
      {"uninstall", "uninstall " + id + " --confirm-game " + id, still},
  };
}

}  // namespace tavro::program
