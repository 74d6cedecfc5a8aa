#include "platform/storage/storage_plan.h"

#include <nlohmann/json.hpp>

#include <string_view>
#include <unordered_set>

#include "documents/manifest.h"
#include "domain/error.h"
#include "domain/input.h"

namespace tavro {
namespace {

using storage_sum::add;
using storage_sum::multiply;
using Amount = unsigned long long;

// What a step writes beside the payload: records, receipts, locks and their temporary files.
constexpr Amount control_margin_bytes = 16'777'216;
constexpr Amount native_control_margin_bytes = 20'971'520;
constexpr Amount control_margin_entries = 64;

Amount rounded_up(Amount length, Amount unit) {
  const Amount units = length / unit + (length % unit != 0 ? 1 : 0);
  return multiply(units, unit);
}

Amount excess(Amount wanted, Amount available) {
  return wanted > available ? wanted - available : 0;
}

Amount amount(const json& budget, const char* key) { return budget.at(key).get<Amount>(); }

Amount tree_entries(const SnapshotManifest& manifest) {
  std::unordered_set<std::string_view> directories;
  for (const auto& [path, file] : manifest.files) {
    const std::string_view text = path;
    for (auto end = text.find('/'); end != text.npos; end = text.find('/', end + 1))
      directories.insert(text.substr(0, end));
  }
  return add(add(manifest.files.size(), directories.size()), 1);
}

Amount tree_allocation(const SnapshotManifest& manifest, Amount unit) {
  Amount total = 0;
  for (const auto& [path, file] : manifest.files) total = add(total, rounded_up(file.length, unit));
  return add(total, multiply(tree_entries(manifest), unit));
}

json optional_count(const std::optional<Amount>& value) { return value ? json(*value) : json(); }

void charge_download(json& budget, const SnapshotManifest& manifest, Amount unit,
                     Amount existing_bytes, bool existing_partial) {
  const Amount missing = excess(rounded_up(manifest.archive_length, unit), existing_bytes);
  budget["download_bytes"] = existing_partial ? missing : add(missing, unit);
  budget["download_file_entries"] = existing_partial ? 0U : 1U;
}

}  // namespace

json make_storage_volume_budget(const StorageVolume& volume) {
  volume.validate();
  return {{"path", path_utf8(volume.path)},
          {"allocation_unit", volume.allocation_unit},
          {"capacity_bytes", volume.capacity_bytes},
          {"available_bytes", volume.available_bytes},
          {"download_bytes", 0U},
          {"staging_bytes", 0U},
          {"control_margin_bytes", control_margin_bytes},
          {"inode_capacity", optional_count(volume.inode_capacity)},
          {"available_inodes", optional_count(volume.available_inodes)},
          {"download_file_entries", 0U},
          {"staging_file_entries", 0U},
          {"control_margin_file_entries", control_margin_entries}};
}

void finish_storage_volume_budget(json& budget) {
  const Amount capacity = amount(budget, "capacity_bytes");
  const Amount available = amount(budget, "available_bytes");
  const Amount additional =
      add(add(amount(budget, "download_bytes"), amount(budget, "staging_bytes")),
          amount(budget, "control_margin_bytes"));
  budget["additional_bytes"] = additional;
  budget["existing_or_unavailable_bytes"] = capacity - available;
  budget["peak_capacity_bytes"] = add(capacity - available, additional);
  budget["shortfall_bytes"] = excess(additional, available);

  const Amount entries =
      add(add(amount(budget, "download_file_entries"), amount(budget, "staging_file_entries")),
          amount(budget, "control_margin_file_entries"));
  budget["additional_file_entries"] = entries;
  budget["existing_or_unavailable_inodes"] = nullptr;
  budget["peak_inodes"] = nullptr;
  budget["shortfall_file_entries"] = nullptr;
  if (budget.at("available_inodes").is_null()) return;
  const Amount available_entries = amount(budget, "available_inodes");
  const Amount taken_entries = amount(budget, "inode_capacity") - available_entries;
  budget["existing_or_unavailable_inodes"] = taken_entries;
  budget["peak_inodes"] = add(taken_entries, entries);
  budget["shortfall_file_entries"] = excess(entries, available_entries);
}

unsigned long long snapshot_storage_file_entries(const SnapshotManifest& manifest) {
  return tree_entries(manifest);
}

json plan_install_storage(const SnapshotManifest& manifest, const StorageVolume& volume,
                          bool verified_archive_cached,
                          unsigned long long existing_archive_allocation_bytes,
                          bool existing_partial) {
  require(existing_archive_allocation_bytes == 0 || existing_partial, "volume_query",
          "Existing allocation needs an owned partial file");
  json budget = make_storage_volume_budget(volume);
  if (!verified_archive_cached)
    charge_download(budget, manifest, volume.allocation_unit, existing_archive_allocation_bytes,
                    existing_partial);
  budget["staging_bytes"] = tree_allocation(manifest, volume.allocation_unit);
  budget["staging_file_entries"] = tree_entries(manifest);
  finish_storage_volume_budget(budget);
  return {{"schema_version", 1U},
          {"reserved", false},
          {"verified_archive_cached", verified_archive_cached},
          {"existing_partial", existing_partial},
          {"existing_archive_allocation_bytes", existing_archive_allocation_bytes},
          {"volume", std::move(budget)}};
}

json plan_native_payload_storage(const SnapshotManifest& first, const SnapshotManifest& second,
                                 const StorageVolume& volume, unsigned long long extra_entries) {
  json budget = make_storage_volume_budget(volume);
  const Amount unit = volume.allocation_unit;
  budget["staging_bytes"] = add(add(tree_allocation(first, unit), tree_allocation(second, unit)),
                                multiply(extra_entries, unit));
  budget["staging_file_entries"] =
      add(add(tree_entries(first), tree_entries(second)), extra_entries);
  budget["control_margin_bytes"] = native_control_margin_bytes;
  finish_storage_volume_budget(budget);
  return {{"schema_version", 1U}, {"reserved", false}, {"volume", std::move(budget)}};
}

void require_install_storage(const json& plan, const std::string& game) {
  const json& volume = plan.at("volume");
  const Amount bytes = amount(volume, "shortfall_bytes");
  const auto found = volume.find("shortfall_file_entries");
  const Amount entries = found == volume.end() || found->is_null() ? 0 : found->get<Amount>();
  if (bytes == 0 && entries == 0) return;

  const Amount number = bytes != 0 ? bytes : entries;
  const std::string kind =
      bytes != 0 ? (number == 1 ? "byte" : "bytes") : (number == 1 ? "file entry" : "file entries");
  throw Error("insufficient_space",
              "Storage at " + volume.at("path").get<std::string>() + " needs " +
                  std::to_string(number) + " more " + kind +
                  " before installation; free space first",
              {game.empty() ? "tavro-install --status --data-dir PATH" : "locations " + game});
}

}  // namespace tavro
