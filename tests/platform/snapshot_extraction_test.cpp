#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "platform/snapshot.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

std::string noise(std::size_t size) {
  std::mt19937 generator(1);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

std::vector<TarEntry> sample_files() {
  return {{"bin/run", "#!/bin/sh\n", 0755},
          {"data/noise", noise(300000)},
          {"data/deep/empty", ""},
          {"readme", "hello"}};
}

class Extraction : public ::testing::Test {
 protected:
  /// Stores an archive and makes its manifest one of `declared`.
  void pack(const std::string& bytes, const std::vector<TarEntry>& declared = sample_files()) {
    write_bytes(archive, bytes);
    manifest = manifest_of(declared, bytes);
  }
  std::string refusal(const Progress& progress = {}) {
    return failure_of([&] { extract_snapshot(manifest, archive, staging, progress); });
  }

  TempFolder folder;
  fs::path archive = folder.path() / "build.tar.zst";
  fs::path staging = folder.path() / "private/staging";
  SnapshotManifest manifest;
};

TEST_F(Extraction, MakesAPrivateTreeFromAnyOrderOfFiles) {
  auto files = sample_files();
  std::reverse(files.begin(), files.end());
  pack(zstd_of(tar_of(files)));
  unsigned long long last = 0;
  extract_snapshot(manifest, archive, staging, [&](auto done, auto total) {
    EXPECT_EQ(total, manifest.expanded_length);
    last = done;
    return true;
  });
  EXPECT_EQ(last, manifest.expanded_length);

  std::map<std::string, std::string> expected;
  for (const auto& file : files) expected[file.path] = file.content;
  EXPECT_EQ(tree_content(staging), expected);
  for (const auto& entry : fs::recursive_directory_iterator(staging)) {
    const auto relative = entry.path().lexically_relative(staging).string();
    const unsigned mode = entry.is_directory() || relative == "bin/run" ? 0700 : 0600;
    EXPECT_EQ(entry.status().permissions(), fs::perms(mode)) << relative;
  }
}

TEST_F(Extraction, DecodesNothingFromAnUnprovedArchive) {
  pack(zstd_of(tar_of(sample_files())));
  const auto proved = manifest;
  const auto refused = "content_mismatch: Snapshot differs from its verified application manifest";
  manifest.archive_length += 1;
  EXPECT_EQ(refusal(), refused);
  manifest = proved;
  manifest.archive_sha256.back() ^= 1;
  EXPECT_EQ(refusal(), refused);
  manifest = proved;
  fs::rename(archive, folder.path() / "moved");
  EXPECT_EQ(refusal(), refused);
  fs::create_symlink("moved", archive);
  EXPECT_EQ(refusal(), refused);
  EXPECT_FALSE(fs::exists(staging));
}

TEST_F(Extraction, NeedsAFreshStaging) {
  pack(zstd_of(tar_of(sample_files())));
  fs::create_directories(staging);
  EXPECT_EQ(refusal(), "staging_exists: A fresh staging directory is required");
  EXPECT_TRUE(fs::is_empty(staging));
}

/// The sample with one more entry, or with another readme.
std::vector<TarEntry> with(const TarEntry& extra) {
  auto files = sample_files();
  files.push_back(extra);
  return files;
}
std::vector<TarEntry> readme(const TarEntry& changed) {
  auto files = sample_files();
  files.back() = changed;
  return files;
}
std::vector<TarEntry> without_readme() {
  auto files = sample_files();
  files.pop_back();
  return files;
}

struct ArchiveRow {
  std::string name;
  std::vector<TarEntry> entries;
  std::string answer;
};

class HostileArchive : public Extraction, public ::testing::WithParamInterface<ArchiveRow> {};

TEST_P(HostileArchive, IsRefused) {
  pack(zstd_of(tar_of(GetParam().entries)));
  EXPECT_EQ(refusal(), GetParam().answer);
}

const std::string not_ordinary = "archive_type: Only ordinary files are accepted in snapshots";
const std::string unlisted = "archive_inventory: Archive contains an unexpected or duplicate file";
const std::string unlike = "archive_inventory: Archive file length or mode differs from manifest";

void be_fifo(archive_entry* entry) { archive_entry_set_filetype(entry, AE_IFIFO); }
void be_directory(archive_entry* entry) { archive_entry_set_filetype(entry, AE_IFDIR); }
void be_symlink(archive_entry* entry) {
  archive_entry_set_filetype(entry, AE_IFLNK);
  archive_entry_set_symlink(entry, "/etc/passwd");
}
void be_hardlink(archive_entry* entry) { archive_entry_set_hardlink(entry, "bin/run"); }
void have_attribute(archive_entry* entry) {
  archive_entry_xattr_add_entry(entry, "user.a", "b", 1);
}
void be_sparse(archive_entry* entry) { archive_entry_sparse_add_entry(entry, 0, 2); }

INSTANTIATE_TEST_SUITE_P(
    Snapshot, HostileArchive,
    ::testing::Values(
        ArchiveRow{"directory", with({"data", "", 0755, be_directory}),
                   "unsafe_path: Trailing path separator is not allowed"},
        ArchiveRow{"fifo", readme({"readme", "", 0644, be_fifo}), not_ordinary},
        ArchiveRow{"symlink", readme({"readme", "", 0644, be_symlink}), not_ordinary},
        ArchiveRow{"hardlink", readme({"readme", "", 0644, be_hardlink}), not_ordinary},
        ArchiveRow{"attribute", readme({"readme", "hello", 0644, have_attribute}), not_ordinary},
        ArchiveRow{"sparse", readme({"readme", "hello", 0644, be_sparse}), not_ordinary},
        ArchiveRow{"climbs", with({"../up", "x"}),
                   "unsafe_path: Path contains an unsafe component"},
        ArchiveRow{"twice", with({"readme", "hello"}), unlisted},
        ArchiveRow{"unlisted", with({"other", "x"}), unlisted},
        ArchiveRow{"longer", readme({"readme", "hello!"}), unlike},
        ArchiveRow{"groupwritable", readme({"readme", "hello", 0664}), unlike},
        ArchiveRow{"setuid", readme({"readme", "hello", 04644}), unlike},
        ArchiveRow{"othercontent", readme({"readme", "hellO"}),
                   "content_mismatch: Extracted file hash differs from manifest"},
        ArchiveRow{"incomplete", without_readme(), "archive: Snapshot is incomplete or malformed"}),
    [](const auto& row) { return row.param.name; });

TEST_F(Extraction, RefusesWhatFollowsTheTarStream) {
  // The tar stream ends within the first block; only the last look at the decoder meets the rest.
  const std::vector<TarEntry> files{{"readme", std::string(60000, 'r')}};
  pack(zstd_of(tar_of(files) + std::string(20000, '\0')), files);
  EXPECT_EQ(refusal(), "size_limit: Decoded tar stream exceeds authenticated expansion bounds");
}

TEST_F(Extraction, LeavesAPartialStagingWhenItIsCancelled) {
  pack(zstd_of(tar_of(sample_files())));
  unsigned calls = 0;
  extract_snapshot(manifest, archive, staging, [&](auto, auto) { return ++calls != 0; });
  for (unsigned stop = 1; stop <= calls; ++stop) {
    fs::remove_all(staging);
    unsigned count = 0;
    EXPECT_EQ(refusal([&](auto, auto) { return ++count != stop; }),
              "cancelled: Operation cancelled at a safe boundary");
    EXPECT_TRUE(fs::is_directory(staging));
  }
}

TEST_F(Extraction, NeverSaysThatAllIsWellAfterAFailedCall) {
  pack(zstd_of(tar_of(sample_files())));
  for (const auto fault : {Fault::fail, Fault::cut}) {
    const int struck = strike_each_call(
        fault, ENOSPC, [&] { fs::remove_all(folder.path() / "private"); },
        [&] { extract_snapshot(manifest, archive, staging); },
        [&](const Stop& stop) {
          // A directory that one call does not make is made by the next one.
          const bool mended = fault == Fault::fail && stop.call == "mkdir";
          EXPECT_EQ(stop.code.empty(), stop.call.empty() || mended) << stop.call << stop.nth;
        });
    EXPECT_GE(struck, 40);
  }
  EXPECT_NO_THROW(verify_snapshot_tree(manifest, staging));
}

TEST_F(Extraction, SyncsEveryFileAndEveryDirectory) {
  pack(zstd_of(tar_of(sample_files())));
  fs::create_directories(staging.parent_path());
  const FailNthCall syncs(0, EIO, Fault::fail, "fsync");
  extract_snapshot(manifest, archive, staging);
  // Four files, four directories, and the name of the staging directory in its parent.
  EXPECT_EQ(syncs.calls(), 4 + 4 + 1);
}

TEST_F(Extraction, SurvivesShortWrites) {
  pack(zstd_of(tar_of(sample_files())));
  strike_each_call(
      Fault::shorten, EIO, [&] { fs::remove_all(staging); },
      [&] { extract_snapshot(manifest, archive, staging); },
      [&](const Stop& stop) { EXPECT_EQ(stop.code, "") << stop.call; });
}

}  // namespace
}  // namespace tavro
