#include "platform/tree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

class Tree : public ::testing::Test {
 protected:
  Tree() { write_tree(files, root); }

  TempFolder folder;
  const std::vector<TarEntry> files = {
      {"a/b/one", "1"}, {"a/b/two", "22"}, {"a/three", "333"}, {"c/four", "4444"}, {"five", ""}};
  const SnapshotManifest manifest = manifest_of(files, "");
  const fs::path root = folder.path() / "versions/tree";
};

TEST_F(Tree, IsRemovedOnlyWhenItHoldsWhatTheSystemMakes) {
  EXPECT_EQ(tree_bytes(root, 8), 10U);
  EXPECT_EQ(code_of([&] { tree_bytes(root, 7); }), "size_limit");
  void (*const damages[])(const fs::path&) = {
      [](const fs::path& odd) { fs::create_symlink("nowhere", odd); },
      [](const fs::path& odd) { ASSERT_EQ(::mkfifo(odd.c_str(), 0600), 0); },
      [](const fs::path& odd) { write_bytes(odd.string() + "?", ""); }};
  for (const auto& damage : damages) {
    damage(root / "a/odd");
    EXPECT_EQ(code_of([&] { remove_plain_tree(root); }), "unsafe_path");
    EXPECT_GE(tree_content(root).size(), files.size());
    EXPECT_TRUE(remove_path_quietly(root / "a/odd") && remove_path_quietly(root / "a/odd?"));
  }
  remove_plain_tree(root / "");
  EXPECT_FALSE(fs::exists(root));
}

TEST_F(Tree, RetiresToNothingAndSyncsItsParentWhenItHoldsOnlyTheSnapshot) {
  const FailNthCall syncs(0, EIO, Fault::fail, "fsync");
  EXPECT_FALSE(retire_snapshot_files(manifest, root / ""));
  EXPECT_FALSE(fs::exists(root));
  EXPECT_EQ(syncs.calls(), 1);
}

TEST_F(Tree, IsProvedWholeBeforeAnythingIsRetiredAndAgainFileByFile) {
  const auto tick = [&, ticks = 0]() mutable {
    if (++ticks == 2) fs::remove(root / "five"), fs::create_directory(root / "five");
  };
  EXPECT_EQ(failure_of([&] { retire_snapshot_files(manifest, root, tick); }),
            "unsafe_path: Changed managed paths were preserved");
  const auto left = tree_content(root);
  EXPECT_EQ(failure_of([&] { retire_snapshot_files(manifest, root); }),
            "unsafe_path: A managed snapshot path became a link or special file; it was preserved");
  EXPECT_EQ(tree_content(root), left);
}

TEST_F(Tree, KeepsWhatIsNotTheSnapshotsWhicheverCallFails) {
  for (const auto fault : {Fault::fail, Fault::cut}) {
    const int struck = strike_each_call(
        fault, EIO, [&] { write_tree(files, root), write_bytes(root / "c/mine", "user"); },
        [&] { retire_snapshot_files(manifest, root); },
        [&](const Stop&) {
          EXPECT_TRUE(retire_snapshot_files(manifest, root));
          EXPECT_EQ(tree_content(root), (std::map<std::string, std::string>{{"c/mine", "user"}}));
        });
    // Five files, the directories a and a/b, and the two that changed and remain.
    EXPECT_EQ(struck, 5 + 2 + 2);
  }
}

}  // namespace
}  // namespace tavro
