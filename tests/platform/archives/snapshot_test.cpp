#include "platform/archives/snapshot.h"

#include <archive_entry.h>
#include <fcntl.h>

#include "platform/files/managed_tree.h"
#include "platform/files/snapshot_retirement.h"
#include "support/fail_nth_call.h"
#include "support/snapshot_archive.h"

namespace tavro::snapshot_test {

const std::vector<TarEntry> sample = {{"readme", "hello"},
                                      {"data/noise", std::string(300000, 'n')},
                                      {"data/deep/empty", ""},
                                      {"bin/run", "#!/bin/sh\n", 0755}};

class SnapshotTree : public ::testing::Test {
 protected:
  SnapshotTree() { write_tree(sample, root); }
  std::string refusal(const Progress& progress = {}) const {
    return code_of([&] { verify_snapshot_tree(manifest, root, progress); });
  }
  /// How many differ and which first, or the code of the failure.
  std::string damage(const Progress& progress = {}) const {
    DamagedFiles damaged;
    const auto code =
        code_of([&] { damaged = damaged_snapshot_files(manifest, root, progress, 1); });
    return damaged.count == 0 ? code : std::to_string(damaged.count) + damaged.paths.at(0);
  }

  TempFolder folder;
  const fs::path root = folder.path() / "tree";
  const SnapshotManifest manifest = manifest_of(sample, "");
};

TEST_F(SnapshotTree, PassesAndReportsEveryByteUnlessItIsStopped) {
  fs::create_directories(root / "extra/empty");
  std::vector<unsigned long long> told;
  EXPECT_EQ(refusal([&](auto done, auto) { return told.push_back(done), true; }), "");
  EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
  EXPECT_EQ(told.back(), manifest.expanded_length);
  for (std::size_t stop = 0; stop < told.size(); ++stop) {
    const auto stopper = [&] { return [&, n = stop](auto, auto) mutable { return n-- != 0; }; };
    EXPECT_EQ(refusal(stopper()), "cancelled");
    EXPECT_EQ(damage(stopper()), "cancelled");
  }
}

TEST_F(SnapshotTree, IsToldApartFromADamagedOne) {
  const std::string refused = "unsafe_path";
  const std::tuple<void (*)(const fs::path&), std::string, std::string> rows[] = {
      {[](auto& r) { fs::remove(r / "readme"), write_bytes(r / "bin/run", ""); }, "missing_file",
       "2bin/run"},
      {[](auto& r) { fs::rename(r / "bin", r / "Bin"); }, "unexpected_file", "2Bin/run"},
      {[](auto& r) { write_bytes(r / "readme", "hellO"); }, "content_mismatch", "1readme"},
      {[](auto& r) { ::chmod((r / "bin/run").c_str(), 0600); }, "content_mode", "1bin/run"},
      {[](auto& r) { fs::create_symlink("readme", r / "link"); }, refused, refused},
      {[](auto& r) { write_bytes(r / "aux.txt", ""); }, refused, refused},
      {[](auto& r) { fs::remove_all(r), fs::create_symlink(".", r); }, refused, refused}};
  for (const auto& [break_it, code, listed] : rows) {
    write_tree(sample, root);
    break_it(root);
    EXPECT_EQ(refusal(), code);
    EXPECT_EQ(damage(), listed);
    fs::remove_all(root);
  }
}

class Extraction : public ::testing::Test {
 protected:
  void pack(const std::string& frame, const std::vector<TarEntry>& declared = sample) {
    write_bytes(archive, frame);
    manifest = manifest_of(declared, frame);
  }
  std::string refusal() {
    fs::remove_all(staging);
    return failure_of([&] { extract_snapshot(manifest, archive, staging); });
  }

  TempFolder folder;
  const fs::path archive = folder.path() / "build.tar.zst";
  const fs::path staging = folder.path() / "private/staging";
  SnapshotManifest manifest;
};

TEST_F(Extraction, MakesAPrivateTreeAndOnlyFromAProvedArchive) {
  pack(zstd_of(tar_of(sample)));
  EXPECT_EQ(refusal(), "");
  for (const auto& entry : fs::recursive_directory_iterator(staging)) {
    const bool wide = entry.is_directory() || entry.path().filename() == "run";
    EXPECT_EQ(entry.status().permissions(), fs::perms(wide ? 0700 : 0600)) << entry;
  }
  EXPECT_EQ(code_of([&] { extract_snapshot(manifest, archive, staging); }), "staging_exists");
  write_bytes(archive, std::string(manifest.archive_length, 'x'));
  EXPECT_EQ(refusal(), "content_mismatch: Snapshot differs from its verified application manifest");
}

TEST_F(Extraction, RefusesAnArchiveThatTheManifestDoesNotConfirm) {
  const auto odd = [](void (*damage)(archive_entry*)) {
    return TarEntry{"readme", "hello", 0644, damage};
  };
  const std::string type = "archive_type: Only ordinary files are accepted in snapshots";
  const std::string unlisted =
      "archive_inventory: Archive contains an unexpected or duplicate file";
  const std::string unlike = "archive_inventory: Archive file length or mode differs from manifest";
  const std::pair<TarEntry, std::string> rows[] = {
      {odd([](auto* e) { archive_entry_set_hardlink(e, "bin/run"); }), type},
      {odd([](auto* e) { archive_entry_xattr_add_entry(e, "user.a", "b", 1); }), type},
      {odd([](auto* e) { archive_entry_sparse_add_entry(e, 0, 2); }), type},
      {{"../up", "x"}, "unsafe_path: Path contains an unsafe component"},
      {{"other", "x"}, unlisted},
      {{"bin/run", "#!/bin/sh\n", 0755}, unlisted},  // twice
      {{"readme", "hello", 04644}, unlike},
      {{"readme", "hellO"}, "content_mismatch: Extracted file hash differs from manifest"}};
  for (const auto& [readme, answer] : rows) {
    auto files = sample;
    files.front() = readme;
    pack(zstd_of(tar_of(files)));
    EXPECT_EQ(refusal(), answer);
  }
  pack(zstd_of(tar_of({sample.front()})));
  EXPECT_EQ(refusal(), "archive: Snapshot is incomplete or malformed");
}

TEST_F(Extraction, TakesExactlyOneOrdinaryFrameUpToItsBound) {
  const std::string tar = tar_of(sample), frame = zstd_of(tar);
  const std::string skippable("\x50\x2A\x4D\x18\x00\x00\x00\x00", 8);
  const std::pair<std::string, std::string> rows[] = {
      {skippable + frame, "archive: Snapshot must contain exactly one ordinary Zstandard frame"},
      {frame + frame, "archive: Snapshot decompression failed"},
      {frame.substr(0, frame.size() - 1), "archive: Snapshot decompression failed"},
      {zstd_of(tar, 26), ""},
      {zstd_of(tar, 27), "archive: Cannot open snapshot archive"},  // its window is too wide
      {zstd_of(tar + std::string(1 << 20, '\0')),
       "size_limit: Decoded tar stream exceeds authenticated expansion bounds"}};
  for (const auto& [file, answer] : rows) {
    pack(file);
    EXPECT_EQ(refusal(), answer);
  }
}

TEST_F(Extraction, StopsOnlyWithAFailureWhicheverCallFails) {
  pack(zstd_of(tar_of(sample)));
  int syncs = 0;
  const auto check = [&](const Stop& stop) {
    syncs += stop.call == "fsync";
    // A directory that one call does not make is made by the next one.
    EXPECT_EQ(stop.code.empty(), stop.call.empty() || stop.call == "mkdir");
  };
  strike_each_call(
      Fault::fail, ENOSPC, [&] { fs::remove_all(staging.parent_path()); },
      [&] { extract_snapshot(manifest, archive, staging); }, check);
  // Each file and directory, and the names of the staging directory and its parent.
  EXPECT_EQ(syncs, 4 + 4 + 2);
}

TEST_F(SnapshotTree, IsRemovedOnlyWhenItHoldsWhatTheSystemMakes) {
  EXPECT_EQ(tree_bytes(root, 7), manifest.expanded_length);
  EXPECT_EQ(code_of([&] { tree_bytes(root, 6); }), "size_limit");
  EXPECT_EQ(::mkfifo((root / "data/odd").c_str(), 0600), 0);
  EXPECT_EQ(code_of([&] { remove_plain_tree(root); }), "unsafe_path");
  EXPECT_EQ(tree_content(root).size(), sample.size());
  EXPECT_TRUE(remove_path_quietly(root / "data/odd"));
  remove_plain_tree(root / "");
  EXPECT_FALSE(fs::exists(root));
}

TEST_F(SnapshotTree, IsProvedWholeBeforeAnythingIsRetiredAndAgainFileByFile) {
  const auto tick = [&, ticks = 0]() mutable {
    if (++ticks == 2) fs::remove(root / "readme"), fs::create_directory(root / "readme");
  };
  EXPECT_EQ(failure_of([&] { retire_snapshot_files(manifest, root, tick); }),
            "unsafe_path: Changed managed paths were preserved");
  write_bytes(root / "data/deep/empty", "");
  EXPECT_EQ(code_of([&] { retire_snapshot_files(manifest, root); }), "unsafe_path");
  EXPECT_EQ(tree_content(root).size(), 1U);
}

TEST_F(SnapshotTree, KeepsWhatIsNotItsOwnWhicheverCallFailsAndGoesWithoutIt) {
  for (const int error : {EIO, EINTR}) {
    const auto prepare = [&] { write_tree(sample, root), write_bytes(root / "data/mine", ""); };
    const auto work = [&] { retire_snapshot_files(manifest, root); };
    const auto check = [&](const Stop& stop) {
      EXPECT_EQ(stop.code.empty(), stop.call.empty() || error == EINTR);
      EXPECT_TRUE(retire_snapshot_files(manifest, root));
      EXPECT_TRUE(fs::exists(root / "data/mine") && !fs::exists(root / "bin"));
    };
    // Four files, the directories bin and data/deep, and the two that changed and remain.
    EXPECT_EQ(strike_each_call(Fault::fail, error, prepare, work, check), 4 + 2 + 2);
  }
  {
    write_tree(sample, root);
    static bool lacking = true;
    SystemCalls calls = system_calls();
    calls.openat = [](int at, const char* name, int flags, mode_t mode) {
      const bool fails = std::string_view(name) == "deep" && std::exchange(lacking, false);
      return fails ? (errno = EMFILE, -1) : ::openat(at, name, flags, mode);
    };
    const SystemCallScope scope(calls);
    EXPECT_THROW(retire_snapshot_files(manifest, root), fs::filesystem_error);
    EXPECT_TRUE(retire_snapshot_files(manifest, root));
  }
  fs::remove(root / "data/mine");
  const FailNthCall syncs(0, EIO, Fault::fail, "fsync");
  EXPECT_FALSE(retire_snapshot_files(manifest, root / "") || fs::exists(root));
  EXPECT_EQ(syncs.calls(), 1) << "of the parent of all that went";
}

}  // namespace tavro::snapshot_test
