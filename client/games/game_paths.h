#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tavro {

/// Where everything of one game lies in a data folder; plain path arithmetic, nothing is looked at.
struct GamePaths {
  /// `data_root` is absolute. Throws `invalid_identity` for what is no identifier.
  GamePaths(const std::filesystem::path& data_root, std::string_view game_id);

  std::string game_id;
  std::filesystem::path root;
  /// `games/ID`: all of the system's own files of the game but its stored manifests.
  std::filesystem::path folder;
  std::filesystem::path record;
  /// Held by whoever changes anything below `folder` but sessions; never removed.
  std::filesystem::path lock;
  std::filesystem::path versions;
  std::filesystem::path staging;
  std::filesystem::path leases;
  std::filesystem::path sessions;
  std::filesystem::path downloads;
  /// Says what in `downloads` is the system's.
  std::filesystem::path download_record;
  std::filesystem::path preparation;
  std::filesystem::path ready;
  std::filesystem::path manifests;
  std::filesystem::path manifests_lock;
  /// `userdata/ID`, the player's: made for the game, and only removed when the player says so.
  std::filesystem::path player;
  std::filesystem::path saves;
  std::filesystem::path state;

  std::filesystem::path version(std::string_view name) const { return versions / name; }
  std::filesystem::path staged(std::string_view name) const { return staging / name; }
  std::filesystem::path lease(std::string_view name) const;
  std::filesystem::path manifest(std::string_view manifest_ref) const;
};

}  // namespace tavro
