#include <algorithm>

#include "domain/error.h"
#include "domain/input.h"
#include "game_report.h"
#include "games/game_library.h"
#include "handlers.h"
#include "installation/data_folder.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "platform/storage/storage_volume.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long max_tree_entries = 250000;

std::string or_dash(const json& text) { return text.is_string() ? text.get<std::string>() : "-"; }

GameStatus known_game(const GameLibrary& library, const std::string& id) {
  GameStatus game = library.status(id);
  require(game.record.has_value() || !game.problem.empty(), "not_installed",
          [&] { return "The game " + id + " is not installed"; });
  return game;
}

std::string status_text(const GameStatus& game, const json& document) {
  std::vector<std::string> lines = {game_title(game) + " (" + game.game_id +
                                    "): " + game_state(game)};
  const auto add = [&](const char* what, const char* key) {
    if (document.at(key).is_string()) lines.push_back(what + or_dash(document.at(key)));
  };
  add("Build: ", "build_id");
  add("Channel: ", "channel");
  add("Previous build: ", "previous_build_id");
  add("Preloaded build: ", "preloaded_build_id");
  if (!document.at("deferral").is_null())
    lines.push_back("Put off: build " + or_dash(document.at("deferral").at("build_id")));
  if (game.last_start) lines.push_back("Last start: " + start_sentence(*game.last_start));
  for (const std::string& folder : game.foreign_versions)
    lines.push_back("Holds files that the game did not bring: " + folder);
  add("Problem: ", "problem");
  return line_text(lines);
}

/// One folder of a game, with what its files take.
json location(const char* name, const fs::path& path, bool there) {
  json place = {{"name", name},
                {"path", path_utf8(path)},
                {"exists", there},
                {"bytes", nullptr},
                {"problem", nullptr}};
  if (!there) return place;
  try {
    place["bytes"] = tree_bytes(path, max_tree_entries);
  } catch (const Error& error) {
    place["problem"] = error.what();
  }
  return place;
}

json volume_document(const fs::path& folder) {
  const StorageVolume volume = inspect_storage_volume(folder);
  json document = {{"path", path_utf8(folder)},
                   {"capacity_bytes", volume.capacity_bytes},
                   {"available_bytes", volume.available_bytes},
                   {"available_entries", nullptr}};
  if (volume.available_inodes) document["available_entries"] = *volume.available_inodes;
  return document;
}

}  // namespace

Answer list_games(Context& context) {
  json games = json::array();
  std::vector<std::vector<std::string>> rows = {{"GAME", "BUILD", "CHANNEL", "STATE", "NAME"}};
  for (const GameStatus& game : GameLibrary(context.root).list()) {
    games.push_back(game_document(game));
    const json& document = games.back();
    rows.push_back({game.game_id, or_dash(document.at("build_id")), or_dash(document.at("channel")),
                    game_state(game), game_title(game)});
  }
  const std::string text =
      games.empty() ? "No game is installed. See what there is: tavro available" : table_text(rows);
  return {{{"games", std::move(games)}}, text};
}

Answer list_available(Context& context) {
  const GameLibrary library(context.root);
  context.show("asking the repository", 0, 0);
  const GameCatalog catalog = library.available(context.tuf());
  json games = json::array();
  std::vector<std::vector<std::string>> rows = {
      {"GAME", "CHANNEL", "BUILD", "DOWNLOAD", "ON DISK", "NAME"}};
  for (const auto& [id, game] : catalog.games)
    for (const auto& [channel, build] : game.channels) {
      games.push_back({{"game_id", id},
                       {"display_name", game.display_name},
                       {"channel", channel},
                       {"build_id", build.build_id},
                       {"download_bytes", build.download_length},
                       {"installed_bytes", build.installed_length}});
      rows.push_back({id, channel, build.build_id, byte_text(build.download_length),
                      byte_text(build.installed_length), game.display_name});
    }
  const std::string text =
      games.empty() ? "The repository offers no game for this platform." : table_text(rows);
  return {{{"platform", catalog.platform}, {"games", std::move(games)}}, text};
}

Answer game_status(Context& context) {
  const GameStatus game = known_game(GameLibrary(context.root), context.subject());
  json document = game_document(game);
  std::string text = status_text(game, document);
  return {{{"game", std::move(document)}}, std::move(text)};
}

Answer manage_game(Context& context) {
  const GameStatus game = GameLibrary(context.root).status(context.subject());
  json actions = json::array();
  std::vector<std::vector<std::string>> rows = {{"TO", "COMMAND", "NOT NOW, SINCE"}};
  for (const GameAction& action : game_actions(game)) {
    const bool possible = action.obstacle.empty();
    actions.push_back({{"action", action.name},
                       {"command", "tavro " + action.command},
                       {"available", possible},
                       {"obstacle", possible ? json() : json(action.obstacle)}});
    rows.push_back({action.name, "tavro " + action.command, action.obstacle});
  }
  const std::string text = status_text(game, game_document(game)) + "\n\n" + table_text(rows);
  return {{{"game", game_document(game)}, {"actions", std::move(actions)}}, text};
}

Answer game_locations(Context& context) {
  const fs::path root = data_folder(context.root);
  const GameStatus game = GameLibrary(root).status(context.subject());
  const GamePaths paths(root, context.subject());
  json places = json::array();
  if (game.record && game.record->active)
    places.push_back(location("content", paths.version(game.record->active->version),
                              bears_name(paths.version(game.record->active->version))));
  const std::pair<const char*, fs::path> folders[] = {
      {"builds", paths.versions},   {"staging", paths.staging}, {"downloads", paths.downloads},
      {"sessions", paths.sessions}, {"saves", paths.saves},     {"state", paths.state}};
  for (const auto& [name, path] : folders) places.push_back(location(name, path, bears_name(path)));
  std::vector<std::vector<std::string>> rows = {{"WHAT", "SIZE", "FOLDER"}};
  for (const json& place : places) {
    const json& bytes = place.at("bytes");
    const std::string size = bytes.is_number() ? byte_text(bytes.get<std::uint64_t>())
                             : place.at("exists").get<bool>() ? "?"
                                                              : "-";
    rows.push_back({or_dash(place.at("name")), size, or_dash(place.at("path"))});
  }
  json volume = volume_document(root);
  const std::string text = table_text(rows) + "\nThe volume has " +
                           byte_text(volume.at("available_bytes").get<std::uint64_t>()) +
                           " free of " +
                           byte_text(volume.at("capacity_bytes").get<std::uint64_t>()) + ".";
  return {{{"game_id", context.subject()},
           {"locations", std::move(places)},
           {"volume", std::move(volume)}},
          text};
}

}  // namespace tavro::program
