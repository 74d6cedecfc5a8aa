#include "platform/snapshot.h"

#include <archive_entry.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "domain/crypto.h"
#include "platform/bounded_zstd.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using Paths = std::vector<std::string>;

std::string noise(std::size_t size) {
  std::string bytes;
  while (bytes.size() < size) bytes += random_id();
  return bytes;
}

const std::vector<TarEntry> sample = {{"readme", "hello"},
                                      {"data/noise", noise(300000)},
                                      {"data/deep/empty", ""},
                                      {"bin/run", "#!/bin/sh\n", 0755}};

class SnapshotTree : public ::testing::Test {
 protected:
  SnapshotTree() { write_tree(sample, root); }
  std::string refusal(const Progress& progress = {}) const {
    return failure_of([&] { verify_snapshot_tree(manifest, root, progress); });
  }

  TempFolder folder;
  fs::path root = folder.path() / "tree";
  SnapshotManifest manifest = manifest_of(sample, "");
};

TEST_F(SnapshotTree, PassesAndReportsEveryByteUnlessItIsStopped) {
  fs::create_directories(root / "extra/empty");
  std::vector<unsigned long long> told;
  EXPECT_EQ(refusal([&](auto done, auto) { return told.push_back(done), true; }), "");
  EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
  EXPECT_EQ(told.back(), manifest.expanded_length);
  for (std::size_t stop = 1; stop <= told.size(); ++stop) {
    std::size_t calls = 0;
    const Progress progress = [&](auto, auto) { return ++calls < stop; };
    EXPECT_EQ(refusal(progress), "cancelled: Operation cancelled at a safe boundary");
    EXPECT_EQ(std::exchange(calls, 0), stop);
    EXPECT_EQ(code_of([&] { damaged_snapshot_files(manifest, root, progress, 1); }), "cancelled");
  }
}

TEST_F(SnapshotTree, IsToldApartFromADamagedOne) {
  struct Row {
    void (*damage)(const fs::path& root);
    std::string code;
    Paths listed;  // none where damaged_snapshot_files refuses as well
  };
  const Row rows[] = {
      {[](auto&) {}, "", {}},
      {[](auto& r) { fs::remove(r / "readme"); }, "missing_file", {"readme"}},
      {[](auto& r) { fs::rename(r / "bin", r / "Bin"); },
       "unexpected_file",
       {"Bin/run", "bin/run"}},
      {[](auto& r) { write_bytes(r / "readme", "hellO"); }, "content_mismatch", {"readme"}},
      {[](auto& r) { write_bytes(r / "bin/run", "a"); }, "content_mismatch", {"bin/run"}},
      {[](auto& r) { fs::permissions(r / "bin/run", fs::perms(0600)); },
       "content_mode",
       {"bin/run"}},
      {[](auto& r) { fs::create_symlink("readme", r / "link"); }, "unsafe_path", {}},
      {[](auto& r) { write_bytes(r / "aux.txt", ""); }, "unsafe_path", {}},
      {[](auto& r) { fs::remove_all(r), fs::create_symlink(".", r); }, "unsafe_path", {}}};
  for (const auto& [damage, code, listed] : rows) {
    write_tree(sample, root);
    damage(root);
    EXPECT_EQ(refusal().substr(0, refusal().find(':')), code);
    DamagedFiles damaged;
    EXPECT_EQ(code_of([&] { damaged = damaged_snapshot_files(manifest, root, {}, 1); }),
              listed.empty() ? code : "");
    EXPECT_EQ(damaged.count, listed.size());
    EXPECT_EQ(damaged.paths, listed.empty() ? Paths{} : Paths{listed.front()});
    fs::remove_all(root);
  }
  write_tree({{"readme", "hellO"}}, root);
  EXPECT_EQ(refusal(), "missing_file: Game content is incomplete; repair is available");
}

std::string decode(std::string_view file, unsigned long long limit) {
  const TempFolder folder;
  write_bytes(folder.path() / "frame", file);
  BoundedZstd decoder(folder.path() / "frame", limit);
  std::string decoded;
  while (decoder.read() != 0) decoded += decoder.output();
  EXPECT_EQ(decoder.read(), 0U);
  return decoded;
}

TEST(BoundedZstd, DecodesExactlyOneOrdinaryFrameUpToItsBound) {
  const std::string content(300000, 'x');
  const std::string frame = zstd_of(content);
  EXPECT_EQ(decode(frame, content.size()), content);
  EXPECT_EQ(decode(zstd_of(content, 26), content.size()), content) << "the widest window";
  EXPECT_EQ(decode(zstd_of(""), 0), "");
  EXPECT_EQ(failure_of([&] { decode(frame, content.size() - 1); }),
            "size_limit: Decoded tar stream exceeds authenticated expansion bounds");

  const std::string skippable("\x50\x2A\x4D\x18\x00\x00\x00\x00", 8);
  const std::string not_one = "Snapshot must contain exactly one ordinary Zstandard frame";
  const std::string trailing = "Trailing or concatenated Zstandard frames are forbidden";
  const std::string undecodable = "Snapshot decoding failed or exceeds the 64 MiB window limit";
  const std::pair<std::string, std::string> rows[] = {
      {"", not_one},
      {skippable + frame, not_one},
      {frame + "x", trailing},
      {frame + frame, trailing},
      {frame.substr(0, frame.size() - 1), "Snapshot frame is truncated"},
      {zstd_of(content, 27), undecodable},
      {frame.substr(0, 4) + std::string(20, '\xff'), undecodable}};
  for (const auto& [file, message] : rows)
    EXPECT_EQ(failure_of([&] { decode(file, content.size()); }), "archive: " + message);
}

class Extraction : public ::testing::Test {
 protected:
  void pack(const std::string& frame, const std::vector<TarEntry>& declared = sample) {
    write_bytes(archive, frame);
    manifest = manifest_of(declared, frame);
  }
  std::string refusal(const Progress& progress = {}) {
    fs::remove_all(staging);
    return failure_of([&] { extract_snapshot(manifest, archive, staging, progress); });
  }

  TempFolder folder;
  fs::path archive = folder.path() / "build.tar.zst";
  fs::path staging = folder.path() / "private/staging";
  SnapshotManifest manifest;
};

TEST_F(Extraction, MakesAPrivateTreeAndSyncsAllOfIt) {
  pack(zstd_of(tar_of(sample)));
  fs::create_directories(staging.parent_path());
  {
    const FailNthCall syncs(0, EIO, Fault::fail, "fsync");
    EXPECT_EQ(refusal(), "");
    // Four files, four directories, and the name of the staging directory in its parent.
    EXPECT_EQ(syncs.calls(), 4 + 4 + 1);
  }
  for (const auto& file : sample) EXPECT_EQ(tree_content(staging)[file.path], file.content);
  for (const auto& entry : fs::recursive_directory_iterator(staging)) {
    const bool wide = entry.is_directory() || entry.path().filename() == "run";
    EXPECT_EQ(entry.status().permissions(), fs::perms(wide ? 0700 : 0600)) << entry;
  }
  EXPECT_EQ(code_of([&] { extract_snapshot(manifest, archive, staging); }), "staging_exists");
  write_bytes(archive, std::string(manifest.archive_length, 'x'));
  EXPECT_EQ(refusal(), "content_mismatch: Snapshot differs from its verified application manifest");
  EXPECT_FALSE(fs::exists(staging)) << "nothing is decoded from an unproved archive";
}

/// The sample with another readme.
std::vector<TarEntry> with(const TarEntry& readme) {
  auto files = sample;
  files.front() = readme;
  return files;
}

TEST_F(Extraction, RefusesAnArchiveThatTheManifestDoesNotConfirm) {
  const auto odd = [](void (*damage)(archive_entry*)) {
    return with({"readme", "hello", 0644, damage});
  };
  const std::string type = "archive_type: Only ordinary files are accepted in snapshots";
  const std::string unlisted =
      "archive_inventory: Archive contains an unexpected or duplicate file";
  const std::string unlike = "archive_inventory: Archive file length or mode differs from manifest";
  const std::pair<std::vector<TarEntry>, std::string> rows[] = {
      {odd([](auto* e) { archive_entry_set_filetype(e, AE_IFIFO); }), type},
      {odd([](auto* e) { archive_entry_set_hardlink(e, "bin/run"); }), type},
      {odd([](auto* e) { archive_entry_xattr_add_entry(e, "user.a", "b", 1); }), type},
      {odd([](auto* e) { archive_entry_sparse_add_entry(e, 0, 2); }), type},
      {with({"../up", "x"}), "unsafe_path: Path contains an unsafe component"},
      {with({"other", "x"}), unlisted},
      {with({"bin/run", "#!/bin/sh\n", 0755}), unlisted},  // twice
      {with({"readme", "hello!"}), unlike},
      {with({"readme", "hello", 04644}), unlike},
      {with({"readme", "hellO"}), "content_mismatch: Extracted file hash differs from manifest"},
      {{sample.front()}, "archive: Snapshot is incomplete or malformed"}};
  for (const auto& [entries, answer] : rows) {
    pack(zstd_of(tar_of(entries)));
    EXPECT_EQ(refusal(), answer);
  }
  // The tar stream ends within the first block; only the last look at the decoder meets the rest.
  const std::vector<TarEntry> one{{"one", std::string(60000, '1')}};
  pack(zstd_of(tar_of(one) + std::string(20000, '\0')), one);
  EXPECT_EQ(refusal(), "size_limit: Decoded tar stream exceeds authenticated expansion bounds");
}

TEST_F(Extraction, StopsOnlyWithAFailureWhicheverCallOrQuestionStopsIt) {
  pack(zstd_of(tar_of(sample)));
  for (unsigned stop = 1; stop < 9; ++stop) {
    unsigned count = 0;
    EXPECT_EQ(refusal([&](auto, auto) { return ++count != stop; }),
              "cancelled: Operation cancelled at a safe boundary");
    EXPECT_TRUE(fs::is_directory(staging)) << "for the caller to remove";
  }
  for (const auto fault : {Fault::fail, Fault::cut, Fault::shorten}) {
    const int struck = strike_each_call(
        fault, ENOSPC, [&] { fs::remove_all(folder.path() / "private"); },
        [&] { extract_snapshot(manifest, archive, staging); },
        [&](const Stop& stop) {
          // A directory that one call does not make is made by the next one.
          const bool mended = fault == Fault::fail && stop.call == "mkdir";
          const bool harmless = fault == Fault::shorten || stop.call.empty() || mended;
          EXPECT_EQ(stop.code.empty(), harmless) << stop.call << stop.nth;
        });
    EXPECT_GE(struck, 40);
  }
}

}  // namespace
}  // namespace tavro
