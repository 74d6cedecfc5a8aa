#include <archive_entry.h>
#include <gmock/gmock.h>
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
using ::testing::AnyOf;
using ::testing::StartsWith;

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

struct ArchiveRow {
  std::string name;
  std::function<std::string()> bytes;
  std::string answer;
  /// Where the tar reader meets the fault first, it may speak before the decoder.
  std::string or_answer = "archive: Snapshot is incomplete or malformed";
};

std::string sample_frame() { return zstd_of(tar_of(sample_files())); }

/// The sample with one more entry, or with one entry changed.
std::string sample_with(const TarEntry& extra) {
  auto files = sample_files();
  files.push_back(extra);
  return zstd_of(tar_of(files));
}
std::string sample_readme(const TarEntry& readme) {
  auto files = sample_files();
  files.back() = readme;
  return zstd_of(tar_of(files));
}

class HostileArchive : public Extraction, public ::testing::WithParamInterface<ArchiveRow> {};

TEST_P(HostileArchive, IsRefused) {
  pack(GetParam().bytes());
  EXPECT_THAT(refusal(), AnyOf(StartsWith(GetParam().answer), GetParam().or_answer));
}

constexpr char not_ordinary[] = "archive_type: Only ordinary files are accepted in snapshots";
constexpr char unlisted[] = "archive_inventory: Archive contains an unexpected or duplicate file";
constexpr char unlike[] = "archive_inventory: Archive file length or mode differs from manifest";
constexpr char not_one_frame[] =
    "archive: Snapshot must contain exactly one ordinary Zstandard frame";
constexpr char trailing[] = "archive: Trailing or concatenated Zstandard frames are forbidden";

INSTANTIATE_TEST_SUITE_P(
    Snapshot, HostileArchive,
    ::testing::Values(
        ArchiveRow{"nothing", [] { return std::string("\x28\xB5\x2F"); }, not_one_frame, ""},
        ArchiveRow{
            "skippable",
            [] { return std::string("\x50\x2A\x4D\x18\x00\x00\x00\x00", 8) + sample_frame(); },
            not_one_frame, ""},
        ArchiveRow{"trailing", [] { return sample_frame() + "x"; }, trailing, ""},
        ArchiveRow{"twoframes", [] { return sample_frame() + zstd_of(""); }, trailing, ""},
        ArchiveRow{"truncated", [] { return sample_frame().substr(0, sample_frame().size() - 9); },
                   "archive: Snapshot", "archive: Snapshot decompression failed"},
        ArchiveRow{"widewindow", [] { return zstd_of(tar_of(sample_files()), 27); },
                   "archive: Cannot open snapshot archive"},
        ArchiveRow{"directory",
                   [] {
                     return sample_with({"data", "", 0755, [](archive_entry* entry) {
                                           archive_entry_set_filetype(entry, AE_IFDIR);
                                         }});
                   },
                   not_ordinary, ""},
        ArchiveRow{"symlink",
                   [] {
                     return sample_readme({"readme", "", 0644, [](archive_entry* entry) {
                                             archive_entry_set_filetype(entry, AE_IFLNK);
                                             archive_entry_set_symlink(entry, "/etc/passwd");
                                           }});
                   },
                   not_ordinary, ""},
        ArchiveRow{"hardlink",
                   [] {
                     return sample_readme({"readme", "", 0644, [](archive_entry* entry) {
                                             archive_entry_set_hardlink(entry, "bin/run");
                                           }});
                   },
                   not_ordinary, ""},
        ArchiveRow{"attribute",
                   [] {
                     return sample_readme({"readme", "hello", 0644, [](archive_entry* entry) {
                                             archive_entry_xattr_add_entry(entry, "user.a", "b", 1);
                                           }});
                   },
                   not_ordinary, ""},
        ArchiveRow{"sparse",
                   [] {
                     return sample_readme({"readme", "hello", 0644, [](archive_entry* entry) {
                                             archive_entry_sparse_add_entry(entry, 0, 2);
                                           }});
                   },
                   not_ordinary, ""},
        ArchiveRow{"climbs",
                   [] {
                     return sample_with({"../up", "x"});
                   },
                   "unsafe_path: Path contains an unsafe component", ""},
        ArchiveRow{"twice",
                   [] {
                     return sample_with({"readme", "hello"});
                   },
                   unlisted, ""},
        ArchiveRow{"unlisted",
                   [] {
                     return sample_with({"other", "x"});
                   },
                   unlisted, ""},
        ArchiveRow{"longer",
                   [] {
                     return sample_readme({"readme", "hello!"});
                   },
                   unlike, ""},
        ArchiveRow{"groupwritable",
                   [] {
                     return sample_readme({"readme", "hello", 0664});
                   },
                   unlike, ""},
        ArchiveRow{"setuid",
                   [] {
                     return sample_readme({"readme", "hello", 04644});
                   },
                   unlike, ""},
        ArchiveRow{"othercontent",
                   [] {
                     return sample_readme({"readme", "hellO"});
                   },
                   "content_mismatch: Extracted file hash differs from manifest", ""},
        ArchiveRow{"incomplete",
                   [] {
                     auto files = sample_files();
                     files.pop_back();
                     return zstd_of(tar_of(files));
                   },
                   "archive: Snapshot is incomplete or malformed"},
        ArchiveRow{"bomb",
                   [] { return zstd_of(tar_of(sample_files()) + std::string(10 << 20, '\0')); },
                   "size_limit: Decoded tar stream exceeds authenticated expansion bounds"}),
    [](const auto& row) { return row.param.name; });

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
          EXPECT_EQ(stop.code.empty(), stop.call.empty()) << stop.call << ' ' << stop.nth;
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
  // Four files; four directories after their content, and each of them in its parent when it is
  // new.
  EXPECT_EQ(syncs.calls(), 4 + 4 + 4);
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
