#include "games/game_removal.h"

#include <fcntl.h>

#include <algorithm>
#include <memory>

#include "domain/error.h"
#include "domain/input.h"
#include "games/game_install.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

void retire_all(GameWriter& writer) {
  GameRecord& record = writer.record;
  for (std::optional<GameVersion>* version : {&record.active, &record.previous})
    if (*version) {
      record.retired.push_back(**version);
      version->reset();
    }
  record.removing = true;
  writer.save();
}

/// Nothing changes unless every build can be had.
void require_none_runs(const GameWriter& writer) {
  std::vector<GameVersion> versions = writer.record.retired;
  for (const auto& version : {writer.record.active, writer.record.previous})
    if (version) versions.push_back(*version);
  for (const GameVersion& version : versions)
    require(!writer.is_running(version), "game_running", "The game is running; end it first");
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

GameRemoval remove_game(GameWriter& writer, PlayerData saves) {
  const GamePaths& paths = writer.paths();
  require_none_runs(writer);
  retire_all(writer);
  GameInstall(writer, {}).discard();
  writer.sweep(true);
  writer.clean_manifests();
  remove_plain_tree(paths.sessions);
  GameRemoval removal{left_versions(paths.versions)};
  for (const fs::path* folder : {&paths.versions, &paths.staging, &paths.downloads, &paths.leases})
    remove_if_empty(*folder);
  if (saves == PlayerData::removed) remove_plain_tree(paths.player);
  // The record goes last: while it stands, the next call knows that a removal is to be completed.
  writer.record.removing = false;
  writer.save();
  return removal;
}

}  // namespace tavro
