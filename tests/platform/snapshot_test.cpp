#include "platform/snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/tree.h"
#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

std::vector<TarEntry> sample_files() {
  return {{"bin/run", "#!/bin/sh\n", 0755},
          {"data/a.bin", std::string(200000, 'a')},
          {"data/deep/empty", ""},
          {"readme", "hello"}};
}

/// An intact tree of the sample files.
class SnapshotTree : public ::testing::Test {
 protected:
  SnapshotTree() { write_tree(sample_files(), root); }

  std::string refusal(const Progress& progress = {}) const {
    return failure_of([&] { verify_snapshot_tree(manifest, root, progress); });
  }

  TempFolder folder;
  fs::path root = folder.path() / "tree";
  SnapshotManifest manifest = manifest_of(sample_files(), "");
};

TEST_F(SnapshotTree, PassesWhenItEqualsTheManifest) {
  fs::create_directories(root / "extra/empty");
  std::vector<unsigned long long> seen;
  verify_snapshot_tree(manifest, root, [&](auto done, auto total) {
    EXPECT_EQ(total, manifest.expanded_length);
    seen.push_back(done);
    return true;
  });
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_EQ(seen.back(), manifest.expanded_length);
  EXPECT_NO_THROW(verify_snapshot_tree(manifest, root));
  EXPECT_EQ(damaged_snapshot_files(manifest, root, {}, 10).count, 0U);
}

struct DamageRow {
  std::string name;
  std::function<void(const fs::path& root)> damage;
  /// What `verify_snapshot_tree` says.
  std::string answer;
  /// What `damaged_snapshot_files` lists; empty where it refuses in the same words.
  std::vector<std::string> listed;
};

class DamagedTree : public SnapshotTree, public ::testing::WithParamInterface<DamageRow> {};

TEST_P(DamagedTree, IsToldApart) {
  GetParam().damage(root);
  EXPECT_THAT(refusal(), StartsWith(GetParam().answer));
  if (GetParam().listed.empty()) {
    EXPECT_EQ(failure_of([&] { damaged_snapshot_files(manifest, root, {}, 9); }), refusal());
    return;
  }
  const auto damaged = damaged_snapshot_files(manifest, root, {}, 9);
  EXPECT_EQ(damaged.paths, GetParam().listed);
  EXPECT_EQ(damaged.count, GetParam().listed.size());
}

const std::string differs = "content_mismatch: Game content differs from the verified manifest: ";

INSTANTIATE_TEST_SUITE_P(
    Snapshot, DamagedTree,
    ::testing::Values(DamageRow{"missing",
                                [](auto& r) { fs::remove(r / "readme"); },
                                "missing_file: Game content is incomplete; repair is available",
                                {"readme"}},
                      DamageRow{"extra",
                                [](auto& r) { write_bytes(r / "data/b", "b"); },
                                "unexpected_file: Game tree contains an unmanaged file",
                                {"data/b"}},
                      DamageRow{"othercase",
                                [](auto& r) { fs::rename(r / "readme", r / "Readme"); },
                                "unexpected_file: ",
                                {"Readme", "readme"}},
                      DamageRow{"changed",
                                [](auto& r) { write_bytes(r / "readme", "hellO"); },
                                differs + "readme",
                                {"readme"}},
                      DamageRow{"shorter",
                                [](auto& r) { write_bytes(r / "data/a.bin", "a"); },
                                differs + "data/a.bin",
                                {"data/a.bin"}},
                      DamageRow{"plain",
                                [](auto& r) { fs::permissions(r / "bin/run", fs::perms(0644)); },
                                "content_mode: Game executable permission is missing",
                                {"bin/run"}},
                      DamageRow{"link",
                                [](auto& r) { fs::create_symlink("readme", r / "link"); },
                                "unsafe_path: Game tree contains a symbolic link",
                                {}},
                      DamageRow{"unportable",
                                [](auto& r) { write_bytes(r / "aux.txt", ""); },
                                "unsafe_path: Path uses a reserved platform name",
                                {}},
                      DamageRow{"gone",
                                [](auto& r) { fs::remove_all(r); },
                                "unsafe_path: Game content directory is missing or linked",
                                {}},
                      DamageRow{"linkedroot",
                                [](auto& r) {
                                  fs::rename(r, r.string() + ".moved");
                                  fs::create_directory_symlink("tree.moved", r);
                                },
                                "unsafe_path: Game content directory is missing or linked",
                                {}}),
    [](const auto& row) { return row.param.name; });

TEST_F(SnapshotTree, IsHashedOnlyWhenItsNamesAreRight) {
  write_bytes(root / "extra", "x");
  unsigned calls = 0;
  EXPECT_THAT(refusal([&](auto, auto) { return ++calls != 0; }), StartsWith("unexpected_file"));
  EXPECT_EQ(calls, 0U);
}

TEST_F(SnapshotTree, StopsWhereverItIsCancelled) {
  unsigned calls = 0;
  verify_snapshot_tree(manifest, root, [&](auto, auto) { return ++calls != 0; });
  for (unsigned stop = 1; stop <= calls; ++stop) {
    unsigned count = 0;
    const Progress progress = [&](auto, auto) { return ++count != stop; };
    EXPECT_EQ(refusal(progress), "cancelled: Operation cancelled at a safe boundary");
    EXPECT_EQ(count, stop);
    count = 0;
    EXPECT_EQ(code_of([&] { damaged_snapshot_files(manifest, root, progress, 1); }), "cancelled");
  }
}

TEST_F(SnapshotTree, NoticesAFileThatGrowsWhileItIsRead) {
  // The growth comes between the comparison of lengths and the digest.
  bool grown = false;
  const auto answer = refusal([&](auto, auto) {
    if (!std::exchange(grown, true)) write_bytes(root / "bin/run", "#!/bin/sh\n# more\n");
    return true;
  });
  EXPECT_EQ(answer, differs + "bin/run");
}

TEST_F(SnapshotTree, ListsNoMoreDamageThanAskedFor) {
  for (const char* name : {"readme", "bin/run", "data/a.bin"}) write_bytes(root / name, "x");
  const auto damaged = damaged_snapshot_files(manifest, root, {}, 1);
  EXPECT_EQ(damaged.count, 3U);
  EXPECT_THAT(damaged.paths, ElementsAre("bin/run"));
}

}  // namespace
}  // namespace tavro
