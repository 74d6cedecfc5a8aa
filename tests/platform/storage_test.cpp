#include "platform/storage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>

#include "domain/error.h"
#include "domain/manifest.h"
#include "platform/storage_plan.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

constexpr auto all_ones = ~0ULL;

SnapshotManifest manifest_of(std::map<std::string, unsigned long long> lengths,
                             unsigned long long archive_length = 5000) {
  SnapshotManifest manifest;
  manifest.archive_length = archive_length;
  for (const auto& [path, length] : lengths) manifest.files[path].length = length;
  return manifest;
}

StorageVolume volume_of(unsigned long long available_bytes, unsigned long long available_inodes) {
  return {"/data", "device:1", 4096, 1ULL << 40, available_bytes, 1000000, available_inodes};
}

/// What the user is told to do next.
std::vector<std::string> next_commands(const json& plan, const std::string& game) {
  try {
    require_install_storage(plan, game);
  } catch (const Error& error) {
    return error.next_commands;
  }
  return {};
}

TEST(Storage, InspectsAVolumeAndADirectory) {
  const TempFolder folder;
  const auto volume = inspect_storage_volume(folder.path());
  EXPECT_EQ(volume.path, folder.path());
  EXPECT_GT(volume.allocation_unit, 0U);
  EXPECT_GT(volume.capacity_bytes, volume.available_bytes);
  const auto identity = inspect_storage_directory(folder.path());
  EXPECT_EQ(volume.identity, "device:" + std::to_string(identity[0]));
}

TEST(Storage, RefusesWhatIsNoOrdinaryAbsoluteDirectory) {
  const TempFolder folder;
  const auto link = folder.path() / "link";
  std::filesystem::create_directory(folder.path() / "real");
  std::filesystem::create_symlink("real", link);
  for (const auto& path : {link, folder.path() / "missing", std::filesystem::path("relative")}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(code_of([&] { inspect_storage_volume(path); }), "unsafe_path");
    EXPECT_EQ(code_of([&] { inspect_storage_directory(path); }), "unsafe_path");
  }
}

struct VolumeRow {
  std::string name;
  std::function<void(StorageVolume&)> damage;
  std::string message;
};

class RefusedVolume : public ::testing::TestWithParam<VolumeRow> {};

TEST_P(RefusedVolume, IsAVolumeQueryFailure) {
  auto volume = volume_of(1 << 30, 1000);
  GetParam().damage(volume);
  const auto failure = failure_of([&] { make_storage_volume_budget(volume); });
  EXPECT_THAT(failure, StartsWith("volume_query: "));
  EXPECT_THAT(failure, EndsWith(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Storage, RefusedVolume,
    ::testing::Values(
        VolumeRow{"relative", [](auto& v) { v.path = "data"; }, "geometry is unavailable"},
        VolumeRow{"nameless", [](auto& v) { v.identity.clear(); }, "geometry is unavailable"},
        VolumeRow{"unitless", [](auto& v) { v.allocation_unit = 0; }, "geometry is unavailable"},
        VolumeRow{"unknown", [](auto& v) { v.capacity_bytes = all_ones; }, "is unavailable"},
        VolumeRow{"overfull", [](auto& v) { v.available_bytes = v.capacity_bytes + 1; },
                  "geometry is unavailable"},
        VolumeRow{"halfcounted", [](auto& v) { v.inode_capacity.reset(); }, "are incomplete"},
        VolumeRow{"nocapacity", [](auto& v) { v.inode_capacity = v.available_inodes = 0; },
                  "counters are invalid"},
        VolumeRow{"allones", [](auto& v) { v.inode_capacity = all_ones; }, "are invalid"},
        VolumeRow{"overcounted", [](auto& v) { v.available_inodes = *v.inode_capacity + 1; },
                  "counters are invalid"}),
    [](const auto& row) { return row.param.name; });

TEST(StoragePlan, CountsFilesTheirDirectoriesAndTheRoot) {
  EXPECT_EQ(snapshot_storage_file_entries(manifest_of({{"a/b/c", 1}, {"a/d", 1}})), 5U);
  EXPECT_EQ(snapshot_storage_file_entries(manifest_of({{"a", 1}})), 2U);
}

TEST(StoragePlan, ChargesWholeUnitsAndAUnitForEachEntry) {
  const auto plan =
      plan_install_storage(manifest_of({{"a", 1}}), volume_of(1 << 30, 1000), false, 0, false);
  const auto& budget = plan.at("volume");
  EXPECT_EQ(budget.at("staging_bytes"), 3 * 4096U);
  EXPECT_EQ(budget.at("staging_file_entries"), 2U);
  EXPECT_EQ(budget.at("download_bytes"), 3 * 4096U) << "the rounded archive and its entry";
  EXPECT_EQ(budget.at("download_file_entries"), 1U);
  EXPECT_EQ(budget.at("additional_bytes"), 6 * 4096U + 16777216U);
  EXPECT_EQ(budget.at("additional_file_entries"), 2U + 1U + 64U);
  EXPECT_EQ(budget.at("peak_inodes"), 1000000U - 1000U + 67U);
  EXPECT_EQ(budget.at("peak_capacity_bytes"), (1ULL << 40) - (1 << 30) + 6 * 4096U + 16777216U);
  EXPECT_FALSE(plan.at("reserved"));
}

struct DownloadRow {
  std::string name;
  bool cached, partial;
  unsigned long long existing, bytes, entries;
};

class DownloadCharge : public ::testing::TestWithParam<DownloadRow> {};

TEST_P(DownloadCharge, IsWhatIsStillMissing) {
  const auto& row = GetParam();
  const auto plan = plan_install_storage(manifest_of({{"a", 1}}), volume_of(1 << 30, 1000),
                                         row.cached, row.existing, row.partial);
  EXPECT_EQ(plan.at("volume").at("download_bytes"), row.bytes);
  EXPECT_EQ(plan.at("volume").at("download_file_entries"), row.entries);
}

INSTANTIATE_TEST_SUITE_P(StoragePlan, DownloadCharge,
                         ::testing::Values(DownloadRow{"fresh", false, false, 0, 12288, 1},
                                           DownloadRow{"resumed", false, true, 4096, 4096, 0},
                                           DownloadRow{"covered", false, true, 16384, 0, 0},
                                           DownloadRow{"cached", true, true, 4096, 0, 0}),
                         [](const auto& row) { return row.param.name; });

TEST(StoragePlan, RefusesAnAllocationThatNobodyOwns) {
  EXPECT_EQ(code_of([] {
              plan_install_storage(manifest_of({{"a", 1}}), volume_of(1, 1), false, 1, false);
            }),
            "volume_query");
}

TEST(StoragePlan, StagesTwoPayloadsWithTheWiderMargin) {
  const auto first = manifest_of({{"a", 1}});
  const auto plan =
      plan_native_payload_storage(first, manifest_of({{"b/c", 4097}}), volume_of(1 << 30, 1000), 7);
  EXPECT_EQ(plan.size(), 3U);
  EXPECT_EQ(plan.at("volume").at("staging_bytes"), (3U + 5U + 7U) * 4096U);
  EXPECT_EQ(plan.at("volume").at("staging_file_entries"), 2U + 3U + 7U);
  EXPECT_EQ(plan.at("volume").at("control_margin_bytes"), 20971520U);
}

TEST(StoragePlan, RefusesASumThatLeaves64Bits) {
  const auto huge = manifest_of({{"a", all_ones - 5000}, {"b", all_ones}});
  EXPECT_EQ(code_of([&] { plan_install_storage(huge, volume_of(1, 1), true, 0, false); }),
            "size_limit");
}

struct ShortfallRow {
  std::string name;
  long long missing_bytes, missing_entries;
  std::string words;
};

class Shortfall : public ::testing::TestWithParam<ShortfallRow> {};

TEST_P(Shortfall, IsToldInTheUnitThatIsMissing) {
  const auto manifest = manifest_of({{"a", 1}});
  const auto& row = GetParam();
  const auto bytes = static_cast<unsigned long long>(3 * 4096 + 16777216 - row.missing_bytes);
  const auto entries = static_cast<unsigned long long>(2 + 64 - row.missing_entries);
  const auto plan = plan_install_storage(manifest, volume_of(bytes, entries), true, 0, false);
  const auto failure = failure_of([&] { require_install_storage(plan, "chess"); });
  if (row.words.empty()) {
    EXPECT_EQ(failure, "");
    return;
  }
  EXPECT_EQ(failure, "insufficient_space: Storage at /data needs " + row.words +
                         " before installation; free space first");
  EXPECT_THAT(next_commands(plan, "chess"), ElementsAre("locations chess"));
}

INSTANTIATE_TEST_SUITE_P(StoragePlan, Shortfall,
                         ::testing::Values(ShortfallRow{"none", 0, 0, ""},
                                           ShortfallRow{"byte", 1, 0, "1 more byte"},
                                           ShortfallRow{"bytes", 2, 9, "2 more bytes"},
                                           ShortfallRow{"entry", 0, 1, "1 more file entry"},
                                           ShortfallRow{"entries", 0, 5, "5 more file entries"}),
                         [](const auto& row) { return row.param.name; });

TEST(StoragePlan, IgnoresEntriesOnAVolumeWithoutCounters) {
  auto volume = volume_of(1 << 30, 1);
  volume.inode_capacity.reset();
  volume.available_inodes.reset();
  const auto plan = plan_install_storage(manifest_of({{"a", 1}}), volume, true, 0, false);
  for (const char* key : {"inode_capacity", "available_inodes", "existing_or_unavailable_inodes",
                          "peak_inodes", "shortfall_file_entries"})
    EXPECT_TRUE(plan.at("volume").at(key).is_null()) << key;
  EXPECT_NO_THROW(require_install_storage(plan, ""));
}

TEST(StoragePlan, PointsToTheInstallerWhenNoGameIsNamed) {
  const auto plan =
      plan_install_storage(manifest_of({{"a", 1}}), volume_of(0, 1000), true, 0, false);
  EXPECT_THAT(next_commands(plan, ""), ElementsAre("tavro-install --status --data-dir PATH"));
}

}  // namespace
}  // namespace tavro
