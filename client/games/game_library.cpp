#include "games/game_library.h"

#include <algorithm>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "games/channel_unlock.h"
#include "games/game_release.h"
#include "installation/data_folder.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_games = 10000;
constexpr std::size_t digest_characters = 64;

Progress in_phase(const GameProgress& progress, std::string_view phase) {
  return [&progress, phase](auto done, auto total) {
    return !progress || progress(phase, done, total);
  };
}

bool is_current(const GameRecord& record, const GameRelease& release) {
  return record.active && record.active->manifest_ref == release.manifest_ref;
}

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

/// A build that runs stays the active one until it has ended. While the lease is held nothing
/// starts.
bool take_from_starts(const GameWriter& game, std::unique_ptr<FileLock>& lease) {
  if (!game.record.active) return true;
  try {
    lease = game.lease(*game.record.active, LockMode::exclusive);
    return true;
  } catch (const Error& error) {
    if (error.code != "game_running") throw;
    return false;
  }
}

}  // namespace

GameLibrary::GameLibrary(const fs::path& data_root) : root_(data_folder(data_root)) {
  require_complete_native_install(root_);
}

GameStore GameLibrary::store(std::string_view game_id) const {
  return GameStore(GamePaths(root_, game_id));
}

GameWriter GameLibrary::writer(std::string_view game_id) const {
  GameWriter game(GamePaths(root_, game_id));
  // A removal that began is completed before anything else begins.
  if (game.record.removing) remove_game(game, PlayerData::kept);
  GameInstall(game, {}).settle();
  settle_game_sessions(game);
  return game;
}

GameWriter GameLibrary::owner(std::string_view game_id) const {
  static_cast<void>(store(game_id).installed());
  GameWriter game = writer(game_id);
  require(game.record.active.has_value(), "not_installed", "The game is not installed");
  return game;
}

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

GameRelease GameLibrary::release(std::string_view game_id, TufClient& tuf,
                                 const GameRequest& request, const std::string& own_channel) const {
  GameOffers offers(root_, tuf);
  const std::string id(game_id);
  if (!request.manifest_sha256.empty()) {
    require(is_lower_hex(request.manifest_sha256, digest_characters), "invalid_identity",
            "A build is named by the 64 hexadecimal characters of its manifest's digest");
    return offers.release(id, request.manifest_sha256);
  }
  const std::string& channel = request.channel.empty() ? own_channel : request.channel;
  validate_game_channel(channel);
  GameRelease newest = offers.release(id, channel);
  try {
    const GameCatalog catalog = offers.catalog();
    UnlockedChannels(root_).require_open(catalog, id, channel);
    require_as_listed(catalog, channel, newest);
  } catch (const Error& error) {
    if (error.code != "catalog_not_published") throw;
  }
  return newest;
}

GameUpdate GameLibrary::check(std::string_view game_id, TufClient& tuf) const {
  const GameStore game = store(game_id);
  const GameRecord record = game.installed();
  const GameRelease newest = release(game_id, tuf, {}, record.channel);
  GameUpdate update;
  update.build_id = newest.manifest.build_id;
  update.newer = !is_current(record, newest);
  update.deferred = record.deferral && record.deferral->holds(update.build_id, game_clock());
  update.staged = record.preload && record.preload->manifest_ref == newest.manifest_ref;
  const GameArchive archive(newest.manifest, newest.manifest_ref);
  update.plan =
      plan_game_files(newest.manifest, newest.manifest, archive.target(), 0, game.paths().folder);
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
  return plan_game_files(wanted.manifest, wanted.manifest, archive.target(), 0, root_);
}

GameChange GameLibrary::install(std::string_view game_id, TufClient& tuf,
                                const GameRequest& request) const {
  GameWriter game = writer(game_id);
  return bring_in(game, tuf, request, Activation::now);
}

GameChange GameLibrary::update(std::string_view game_id, TufClient& tuf,
                               const GameRequest& request) const {
  GameWriter game = owner(game_id);
  return bring_in(game, tuf, request, Activation::now);
}

GameChange GameLibrary::preload(std::string_view game_id, TufClient& tuf,
                                const GameRequest& request) const {
  GameWriter game = writer(game_id);
  return bring_in(game, tuf, request, Activation::later);
}

GameChange GameLibrary::bring_in(GameWriter& game, TufClient& tuf, const GameRequest& request,
                                 Activation activation) const {
  GameRecord& record = game.record;
  const GameRelease wanted = release(record.game_id, tuf, request, record.channel);
  GameChange change{.build_id = wanted.manifest.build_id};
  const bool moves = !request.channel.empty() && request.channel != record.channel;
  if (moves) record.channel = request.channel;
  if (is_current(record, wanted)) {
    if (moves) game.save();
    change.active = true;
    return change;
  }
  GameInstall work(game, request.progress);
  work.stage(tuf, wanted);
  change.changed = change.staged = true;
  std::unique_ptr<FileLock> lease;
  const bool free = activation == Activation::now && take_from_starts(game, lease);
  if (!free) {
    record.preload = work.staged();
    game.save();
    return change;
  }
  work.activate();
  change.staged = false;
  change.active = true;
  return change;
}

GameChange GameLibrary::finish_update(std::string_view game_id,
                                      const GameProgress& progress) const {
  GameWriter game = writer(game_id);
  GameInstall work(game, progress);
  const auto staged = work.staged();
  if (!staged)
    return {.build_id = game.record.active ? game.record.active->build_id : "",
            .active = game.record.active.has_value()};
  std::unique_ptr<FileLock> lease;
  if (game.record.active) lease = game.lease(*game.record.active, LockMode::exclusive);
  const GameManifest manifest = game.manifest(*staged);
  const auto differences = compare_game_files(manifest, game.paths().staged(staged->version),
                                              in_phase(progress, "verifying"));
  require(differences.is_sound(), "content_mismatch",
          "The staged build was changed; discard it and update again");
  work.activate();
  return {.build_id = staged->build_id, .active = true, .staged = false, .changed = true};
}

void GameLibrary::discard(std::string_view game_id) const {
  if (!bears_name(GamePaths(root_, game_id).lock)) return;
  GameWriter game = writer(game_id);
  GameInstall(game, {}).discard();
}

GameDifferences GameLibrary::verify(std::string_view game_id, const GameProgress& progress) const {
  const GameStore game = store(game_id);
  const GameVersion active = *game.installed().active;
  return compare_game_files(game.manifest(active), game.paths().version(active.version),
                            in_phase(progress, "verifying"));
}

GameRepair GameLibrary::repair(std::string_view game_id, TufClient& tuf,
                               const GameProgress& progress) const {
  GameWriter game = owner(game_id);
  const auto lease = game.lease(*game.record.active, LockMode::exclusive);
  const GameDifferences differences = verify(game_id, progress);
  const GameRepair repair =
      differences.is_sound() ? GameRepair() : repair_game(game, tuf, differences, progress);
  // What a repair that was cut off fetched is of no use any more.
  GameDownloads(game).forget();
  return repair;
}

GameChange GameLibrary::roll_back(std::string_view game_id, const GameProgress& progress) const {
  GameWriter game = owner(game_id);
  GameRecord& record = game.record;
  require(record.previous.has_value(), "no_previous_build",
          "There is no previous build of this game to go back to");
  const auto active = game.lease(*record.active, LockMode::exclusive);
  const auto previous = game.lease(*record.previous, LockMode::exclusive);
  const auto differences = compare_game_files(game.manifest(*record.previous),
                                              game.paths().version(record.previous->version),
                                              in_phase(progress, "verifying"));
  require(differences.is_sound(), "content_mismatch",
          "The previous build of this game was changed; it cannot be gone back to");
  record.deferral = GameDeferral{record.active->build_id, 0};
  std::swap(record.active, record.previous);
  game.save();
  return {.build_id = record.active->build_id, .active = true, .staged = false, .changed = true};
}

void GameLibrary::forget_previous(std::string_view game_id) const {
  GameWriter game = owner(game_id);
  GameRecord& record = game.record;
  if (!record.previous || record.retired.size() >= kMaxRetiredVersions) return;
  record.retired.push_back(*record.previous);
  record.previous.reset();
  game.save();
  game.sweep(false);
}

void GameLibrary::set_channel(std::string_view game_id, const std::string& channel) const {
  validate_game_channel(channel);
  GameWriter game = owner(game_id);
  game.record.channel = channel;
  game.save();
}

void GameLibrary::defer(std::string_view game_id, const std::string& build_id,
                        std::uint64_t until) const {
  if (!build_id.empty()) validate_identifier(build_id);
  GameWriter game = owner(game_id);
  game.record.deferral.reset();
  if (!build_id.empty()) game.record.deferral = GameDeferral{build_id, until};
  game.save();
}

GameRemoval GameLibrary::remove(std::string_view game_id, PlayerData saves) const {
  const GamePaths paths(root_, game_id);
  const bool has_saves = saves == PlayerData::removed && bears_name(paths.player);
  require(bears_name(paths.record) || bears_name(paths.preparation) || bears_name(paths.ready) ||
              bears_name(paths.download_record) || has_saves,
          "not_installed", [&] { return "The game " + paths.game_id + " is not installed"; });
  GameWriter game(paths);
  GameInstall(game, {}).settle();
  return remove_game(game, saves);
}

GameSession GameLibrary::launch(std::string_view game_id,
                                const std::vector<std::string>& arguments) const {
  return GameSession(store(game_id), arguments);
}

std::string GameLibrary::last_output(std::string_view game_id) const {
  const GameStore game = store(game_id);
  const auto last = last_game_start(game);
  return last ? kept_game_output(game, last->session_id) : std::string();
}

}  // namespace tavro
