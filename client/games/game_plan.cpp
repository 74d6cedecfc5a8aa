#include "games/game_plan.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "documents/game_catalog.h"
#include "platform/storage/storage_plan.h"
#include "platform/storage/storage_volume.h"

namespace tavro {
namespace {

/// Null stands for a volume that keeps no counters.
std::uint64_t number(const json& budget, const char* key) {
  const json& value = budget.at(key);
  return value.is_null() ? 0 : value.get<std::uint64_t>();
}

}  // namespace

GamePlan plan_game_files(const GameManifest& manifest, const SnapshotManifest& part,
                         const GameTarget& archive, const GameOnDisk& on_disk,
                         const std::filesystem::path& directory) {
  const StorageVolume volume = inspect_storage_volume(directory);
  SnapshotManifest planned;
  planned.files = part.files;
  planned.archive_length = archive.length;
  GamePlan plan;
  plan.storage =
      plan_install_storage(planned, volume, false, on_disk.allocated, on_disk.allocated != 0);
  const json& budget = plan.storage.at("volume");
  plan.build_id = manifest.build_id;
  plan.fetch_bytes =
      game_download_length(manifest) - std::min<std::uint64_t>(on_disk.received, archive.length);
  plan.installed_bytes = part.expanded_length;
  plan.peak_bytes = number(budget, "additional_bytes");
  plan.peak_entries = number(budget, "additional_file_entries");
  // A volume in memory without a bound tells no capacity, and is never full.
  if (volume.capacity_bytes == 0) return plan;
  plan.shortfall_bytes = number(budget, "shortfall_bytes");
  plan.shortfall_entries = number(budget, "shortfall_file_entries");
  return plan;
}

void require_room(const GamePlan& plan, const std::string& game_id) {
  if (plan.shortfall_bytes != 0 || plan.shortfall_entries != 0)
    require_install_storage(plan.storage, game_id);
}

}  // namespace tavro
