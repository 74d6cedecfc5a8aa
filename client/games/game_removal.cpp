#include "games/game_removal.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "games/game_folder.h"
#include "games/game_install.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t player_entries = 65536;

using Leases = std::vector<std::unique_ptr<FileLock>>;

/// Nothing changes unless every build can be had.
Leases lease_all(const GameWriter& writer) {
  std::vector<GameVersion> versions = writer.record.retired;
  for (const auto& version : {writer.record.active, writer.record.previous})
    if (version) versions.push_back(*version);
  Leases leases;
  for (const GameVersion& version : versions)
    leases.push_back(writer.lease(version, LockMode::exclusive));
  return leases;
}

/// From here on nothing starts, and whoever goes on knows what the player wanted.
void retire_all(GameWriter& writer, PlayerData saves) {
  GameRecord& record = writer.record;
  for (std::optional<GameVersion>* version : {&record.active, &record.previous})
    if (*version) record.retired.push_back(*std::exchange(*version, std::nullopt));
  record.removing = saves;
  writer.save();
}

/// The folders that stay as they are.
std::vector<std::string> remove_versions(GameWriter& writer) {
  std::vector<std::string> unproved;
  const std::vector<GameVersion> versions = writer.record.retired;
  for (const GameVersion& version : versions) {
    const auto lease = writer.lease(version, LockMode::exclusive);
    const fs::path folder = writer.paths().version(version.version);
    // A manifest that cannot be used is as good as none.
    if (bears_name(folder) && !writer.known_manifest(version))
      writer.drop(writer.paths().manifest(version.manifest_ref));
    if (!writer.retire(version)) unproved.push_back(path_utf8(folder));
    writer.save();
  }
  return unproved;
}

std::string set_aside_prefix(const GamePaths& paths) { return ".removed-" + paths.game_id; }

std::vector<fs::path> set_aside_players(const GamePaths& paths) {
  std::vector<fs::path> found;
  std::error_code ignored;
  std::size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(paths.player.parent_path(), ignored)) {
    require(++entries <= player_entries, "size_limit",
            [&] { return "This folder holds too much: " + path_utf8(paths.player.parent_path()); });
    const std::string name = path_utf8(entry.path().filename());
    if (!nonce_between(name, set_aside_prefix(paths), "").empty()) found.push_back(entry.path());
  }
  return found;
}

/// In one step, so that no player ever finds half of them.
void set_player_aside(const GamePaths& paths) {
  if (!bears_name(paths.player)) return;
  const fs::path folder = paths.player.parent_path();
  native_files::rename_replace(paths.player,
                               folder / (set_aside_prefix(paths) + '.' + random_id()));
  sync_directory(folder);
}

void require_plain_player(const GamePaths& paths) {
  const auto node = posix_files::node_at(paths.player);
  require(!node || S_ISDIR(node->st_mode), "unsafe_path", [&] {
    return "The player's folder is a link or a file; move it away: " + path_utf8(paths.player);
  });
}

void remove_if_empty(const fs::path& folder) {
  retried([&] { return system_calls().unlinkat(AT_FDCWD, folder.c_str(), AT_REMOVEDIR); });
}

std::vector<std::string> left_versions(const fs::path& versions) {
  std::vector<std::string> left;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(versions, ignored))
    left.push_back(path_utf8(entry.path()));
  std::sort(left.begin(), left.end());
  return left;
}

}  // namespace

bool has_set_aside_player(const GamePaths& paths) { return !set_aside_players(paths).empty(); }

void remove_set_aside_player(const GamePaths& paths) {
  for (const fs::path& folder : set_aside_players(paths)) remove_game_folder(folder);
}

GameRemoval remove_game(GameWriter& writer, PlayerData saves) {
  const GamePaths& paths = writer.paths();
  if (saves == PlayerData::removed) require_plain_player(paths);
  Leases leases = lease_all(writer);
  // What somebody put into a stage is told while the game is whole.
  GameInstall(writer, {}).discard();
  retire_all(writer, saves);
  leases.clear();
  GameRemoval removal;
  removal.unproved = remove_versions(writer);
  writer.clean_manifests();
  remove_game_folder(paths.sessions);
  removal.kept = left_versions(paths.versions);
  for (const fs::path* folder : {&paths.versions, &paths.staging, &paths.downloads, &paths.leases})
    remove_if_empty(*folder);
  if (saves == PlayerData::removed) set_player_aside(paths);
  // The record goes last: while it stands, the next call knows that a removal is to be completed.
  writer.record.removing.reset();
  writer.save();
  if (saves == PlayerData::removed) remove_set_aside_player(paths);
  return removal;
}

}  // namespace tavro
