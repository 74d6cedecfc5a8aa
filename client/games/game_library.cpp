#include "games/game_library.h"

#include <exception>
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

constexpr std::size_t digest_characters = 64;

Progress in_phase(const GameProgress& progress, std::string_view phase) {
  return [&progress, phase](auto done, auto total) {
    return !progress || progress(phase, done, total);
  };
}

bool is_current(const GameRecord& record, const GameRelease& release) {
  return record.active && record.active->manifest_ref == release.manifest_ref;
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
  // A removal that began is completed before anything else begins; it takes the folders away that
  // the next writer makes.
  const auto record = store(game_id).find();
  if (record && record->removing) {
    GameWriter removed(GamePaths(root_, game_id));
    if (removed.record.removing) remove_game(removed, *removed.record.removing);
  }
  GameWriter game(GamePaths(root_, game_id));
  try {
    remove_set_aside_player(game.paths());
  } catch (const std::exception&) {
    // What cannot be removed of given up saves is no reason to keep from a game.
  }
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

GameRelease GameLibrary::release(std::string_view game_id, TufClient& tuf,
                                 const GameRequest& request, const std::string& own_channel) const {
  GameOffers offers(root_, tuf, request.progress);
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
  GameInstall work(game, request.progress);
  if (is_current(record, wanted)) {
    if (!game.known_manifest(*record.active)) game.keep_manifest(wanted.manifest);
    // What was staged meanwhile is not offered any more, and must not come into use.
    change.changed = work.staged().has_value();
    if (change.changed) work.discard();
    if (moves) game.save();
    change.active = true;
    return change;
  }
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
  return repair_game(game, tuf, progress);
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
  game.sweep();
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
  const bool has_saves =
      saves == PlayerData::removed && (bears_name(paths.player) || has_set_aside_player(paths));
  const bool has_anything = bears_name(paths.record) || bears_name(paths.preparation) ||
                            bears_name(paths.ready) || bears_name(paths.download_record) ||
                            has_saves;
  GameRemoval removal;
  // A first call that was cut off may have left no more than what nobody has to be told of.
  if (has_anything || bears_name(paths.lock)) {
    GameWriter game(paths);
    GameInstall(game, {}).settle();
    removal = remove_game(game, saves);
  }
  forget_game_offers(root_, game_id);
  require(has_anything, "not_installed",
          [&] { return "The game " + paths.game_id + " is not installed"; });
  return removal;
}

GameSession GameLibrary::launch(std::string_view game_id,
                                const std::vector<std::string>& arguments) const {
  const GameStore game = store(game_id);
  // Before this one holds its lease: until then those that nobody saw end can be told from it.
  prune_game_sessions(game);
  return GameSession(game, arguments);
}

}  // namespace tavro
