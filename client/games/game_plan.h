#pragma once

#include <cstdint>
#include <string>

#include "domain/json.h"
#include "games/game_download.h"

namespace tavro {

/// What bringing a build in takes, told before anything of it is taken.
struct GamePlan {
  std::string build_id;
  /// Bytes that come over the network.
  std::uint64_t fetch_bytes = 0;
  /// Bytes of the files when it stands.
  std::uint64_t installed_bytes = 0;
  /// What the disk has to hold beyond now while the work lasts, in bytes and entries. Bytes are
  /// rounded up to the volume's units, and hold a margin for records; the builds that are there
  /// already stay meanwhile.
  std::uint64_t peak_bytes = 0;
  std::uint64_t peak_entries = 0;
  /// How much of it is missing on this volume; 0 when it fits.
  std::uint64_t shortfall_bytes = 0;
  std::uint64_t shortfall_entries = 0;
  /// The storage plan itself, for `require_install_storage`.
  json storage;
};

/// The plan of `part`, which has its files from `manifest`, as its archive is fetched and as much
/// of that is on disk. Throws what `plan_install_storage` throws.
GamePlan plan_game_files(const GameManifest& manifest, const SnapshotManifest& part,
                         const GameTarget& archive, const GameOnDisk& on_disk,
                         const std::filesystem::path& directory);

/// Throws `insufficient_space`, which names the folder and how much to free there.
void require_room(const GamePlan& plan, const std::string& game_id);

}  // namespace tavro
