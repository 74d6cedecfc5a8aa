#include "documents/manifest.h"
#include "platform/storage/storage_plan.h"
#include "platform/storage/storage_volume.h"
#include "support/testing.h"

namespace tavro::storage_test {

using Amount = unsigned long long;
constexpr Amount margin = 16777216;

SnapshotManifest files_of(const std::map<std::string, Amount>& lengths) {
  SnapshotManifest manifest;
  manifest.archive_length = 5000;
  for (const auto& [path, length] : lengths) manifest.files[path].length = length;
  return manifest;
}
const auto one_byte = files_of({{"a", 1}});

StorageVolume volume_of(Amount available_bytes, Amount available_inodes) {
  return {"/data", "device:1", 4096, 1ULL << 40, available_bytes, 1000000, available_inodes};
}
const auto roomy = volume_of(1 << 30, 1000);

TEST(Storage, InspectsOnlyAnOrdinaryDirectory) {
  const TempFolder folder;
  EXPECT_NO_THROW(inspect_storage_volume(folder.path()));
  std::filesystem::create_directory_symlink(".", folder.path() / "link");
  for (const char* link : {"link", "link/"})
    EXPECT_EQ(code_of([&] { inspect_storage_volume(folder.path() / link); }), "unsafe_path");
}

TEST(StoragePlan, ChargesWholeUnitsAUnitForEachEntryAndTheDownloadThatIsMissing) {
  const auto peak = plan_install_storage(one_byte, roomy, false, 0, false).at("volume");
  EXPECT_EQ(peak.at("peak_capacity_bytes"), (1ULL << 40) - (1 << 30) + 6 * 4096U + margin);
  EXPECT_EQ(peak.at("peak_inodes"), 1000000U - 1000U + 2U + 1U + 64U);
  const auto pair = plan_native_payload_storage(one_byte, files_of({{"b/c", 4097}}), roomy, 7);
  EXPECT_EQ(pair.at("volume").at("additional_bytes"), (3U + 5U + 7U) * 4096U + 20971520U);
  EXPECT_EQ(pair.at("volume").at("additional_file_entries"), 2U + 3U + 7U + 64U);

  const auto download = [](bool cached, Amount existing, bool partial) {
    const auto plan = plan_install_storage(one_byte, roomy, cached, existing, partial);
    return plan.at("volume").at("download_bytes").get<Amount>();
  };
  EXPECT_EQ(download(false, 4096, true), 4096U);
  EXPECT_EQ(download(false, 16384, true), 0U);
  EXPECT_EQ(download(true, 4096, true), 0U);
  EXPECT_EQ(code_of([&] { download(false, 1, false); }), "volume_query");
}

TEST(StoragePlan, TellsAShortfallInTheUnitThatIsMissing) {
  const auto told = [](Amount lacking_bytes, Amount lacking_entries, bool counted) {
    auto volume = volume_of(3 * 4096 + margin - lacking_bytes, 2 + 64 - lacking_entries);
    if (!counted) volume.inode_capacity = volume.available_inodes = std::nullopt;
    const auto plan = plan_install_storage(one_byte, volume, true, 0, false);
    return failure_of([&] { require_install_storage(plan, ""); });
  };
  const std::string start = "insufficient_space: Storage at /data needs ";
  const std::string end = " before installation; free space first";
  EXPECT_EQ(told(0, 0, true) + told(0, 1, false), "");
  EXPECT_EQ(told(1, 0, true), start + "1 more byte" + end);
  EXPECT_EQ(told(0, 5, true), start + "5 more file entries" + end);
}

}  // namespace tavro::storage_test
