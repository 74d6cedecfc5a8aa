#include <algorithm>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "games/game_library.h"
#include "games/game_release.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_games = 10000;

std::vector<std::string> foreign_versions(const GameStore& store, const GameRecord& record) {
  std::vector<std::string> known;
  for (const auto& version : {record.active, record.previous, record.preload})
    if (version) known.push_back(version->version);
  for (const GameVersion& version : record.retired) known.push_back(version.version);
  std::vector<std::string> foreign;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(store.paths().versions, ignored)) {
    const std::string name = path_utf8(entry.path().filename());
    if (std::find(known.begin(), known.end(), name) == known.end() && foreign.size() < max_games)
      foreign.push_back(path_utf8(entry.path()));
  }
  return foreign;
}

}  // namespace

std::vector<GameStatus> GameLibrary::list() const {
  std::vector<GameStatus> games;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(root_ / "games", ignored)) {
    const std::string id = path_utf8(entry.path().filename());
    if (!bears_name(entry.path() / "record.json")) continue;
    require(games.size() < max_games, "size_limit", "The data folder holds too many games");
    try {
      games.push_back(status(id));
    } catch (const Error& error) {
      GameStatus unread;
      unread.game_id = id;
      unread.problem = error.what();
      games.push_back(std::move(unread));
    }
  }
  std::sort(games.begin(), games.end(),
            [](const auto& left, const auto& right) { return left.game_id < right.game_id; });
  return games;
}

GameStatus GameLibrary::status(std::string_view game_id) const {
  const GameStore game = store(game_id);
  GameStatus status;
  status.game_id = game_id;
  status.record = game.find();
  if (!status.record) return status;
  const GameRecord& record = *status.record;
  status.installed = record.active.has_value() && !record.removing;
  status.last_start = last_game_start(game);
  status.foreign_versions = foreign_versions(game, record);
  if (!record.active) return status;
  status.running = game.is_running(*record.active);
  try {
    status.display_name = game.manifest(*record.active).display_name;
  } catch (const Error& error) {
    status.problem = error.what();
  }
  return status;
}

GameCatalog GameLibrary::available(TufClient& tuf) const {
  return GameOffers(root_, tuf).catalog();
}

GameUpdate GameLibrary::check(std::string_view game_id, TufClient& tuf) const {
  const GameStore game = store(game_id);
  const GameRecord record = game.installed();
  const GameRelease newest = release(game_id, tuf, {}, record.channel);
  GameUpdate update;
  update.build_id = newest.manifest.build_id;
  update.newer = record.active->manifest_ref != newest.manifest_ref;
  update.deferred = record.deferral && record.deferral->holds(update.build_id, game_clock());
  update.staged = record.preload && record.preload->manifest_ref == newest.manifest_ref;
  const GameArchive archive(newest.manifest, newest.manifest_ref);
  update.plan =
      plan_game_files(newest.manifest, newest.manifest, archive.target(), {}, game.paths().folder);
  return update;
}

GamePlan GameLibrary::plan(std::string_view game_id, TufClient& tuf,
                           const GameRequest& request) const {
  const GameStore game = store(game_id);
  const auto record = game.find();
  const GameRelease wanted =
      release(game_id, tuf, request, record ? record->channel : std::string(kDefaultGameChannel));
  if (bears_name(game.paths().lock)) {
    GameWriter owned = writer(game_id);
    return GameInstall(owned, request.progress).plan(wanted);
  }
  const GameArchive archive(wanted.manifest, wanted.manifest_ref);
  return plan_game_files(wanted.manifest, wanted.manifest, archive.target(), {}, root_);
}

std::string GameLibrary::last_output(std::string_view game_id) const {
  const GameStore game = store(game_id);
  const auto last = last_game_start(game);
  return last ? kept_game_output(game, last->session_id) : std::string();
}

}  // namespace tavro
