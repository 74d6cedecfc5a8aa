#include "games/game_paths.h"

#include "domain/identifier.h"

namespace tavro {
namespace {

std::string_view proved(std::string_view game_id) {
  validate_identifier(game_id);
  return game_id;
}

}  // namespace

GamePaths::GamePaths(const std::filesystem::path& data_root, std::string_view id)
    : game_id(proved(id)),
      root(data_root),
      folder(root / "games" / game_id),
      record(folder / "record.json"),
      lock(folder / "game.lock"),
      versions(folder / "versions"),
      staging(folder / "staging"),
      leases(folder / "leases"),
      sessions(folder / "sessions"),
      downloads(folder / "downloads"),
      download_record(folder / "downloads.json"),
      preparation(folder / "preparation.json"),
      ready(folder / "ready.json"),
      manifests(root / "verified-manifests"),
      manifests_lock(manifests / "manifests.lock"),
      player(root / "userdata" / game_id),
      saves(player / "saves"),
      state(player / "state") {}

std::filesystem::path GamePaths::lease(std::string_view name) const {
  return leases / (std::string(name) + ".lock");
}

std::filesystem::path GamePaths::manifest(std::string_view manifest_ref) const {
  return manifests / ("application-" + std::string(manifest_ref) + ".json");
}

}  // namespace tavro
