#include "platform/tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using ::testing::StartsWith;

class Tree : public ::testing::Test {
 protected:
  Tree() { write_tree(files, root); }

  TempFolder folder;
  const std::vector<TarEntry> files = {
      {"a/b/one", "1"}, {"a/b/two", "22"}, {"a/three", "333"}, {"c/four", "4444"}, {"five", ""}};
  const SnapshotManifest manifest = manifest_of(files, "");
  const fs::path root = folder.path() / "versions/tree";
};

TEST_F(Tree, CountsTheBytesOfItsFilesWithinABound) {
  constexpr unsigned long entries = 8;
  EXPECT_EQ(tree_bytes(root, entries), 10U);
  EXPECT_EQ(failure_of([&] { tree_bytes(root, entries - 1); }),
            "size_limit: Directory entry count exceeds bounds");
  EXPECT_EQ(tree_bytes(root / "missing", 0), 0U);
  EXPECT_EQ(failure_of([&] { tree_bytes(root / "five", 9); }),
            "unsafe_path: Expected a plain directory");
}

TEST_F(Tree, IsRemovedWhole) {
  remove_plain_tree(root / "");
  EXPECT_FALSE(fs::exists(root));
  EXPECT_NO_THROW(remove_plain_tree(root));
}

TEST_F(Tree, IsKeptWholeWhenItHoldsWhatTheSystemNeverMakes) {
  const std::function<void(const fs::path&)> damages[] = {
      [](const fs::path& odd) { fs::create_symlink("nowhere", odd); },
      [](const fs::path& odd) { ASSERT_EQ(::mkfifo(odd.c_str(), 0600), 0); },
      [](const fs::path& odd) { write_bytes(odd.string() + "?", ""); }};
  for (const auto& damage : damages) {
    damage(root / "a/odd");
    EXPECT_EQ(code_of([&] { remove_plain_tree(root); }), "unsafe_path");
    EXPECT_EQ(tree_content(root).size(), files.size() + (fs::exists(root / "a/odd?") ? 1 : 0));
    fs::remove(root / "a/odd");
  }
}

TEST_F(Tree, IsNotRemovedThroughALink) {
  const fs::path link = folder.path() / "link";
  fs::create_directory_symlink(root, link);
  EXPECT_EQ(failure_of([&] { remove_plain_tree(link); }),
            "unsafe_path: Tree cleanup requires an ordinary directory");
  EXPECT_TRUE(remove_path_quietly(link));
  EXPECT_EQ(tree_content(root).size(), files.size());
  EXPECT_TRUE(remove_path_quietly(root));
  EXPECT_FALSE(fs::exists(root));
}

TEST_F(Tree, RetiresToNothingWhenItHoldsOnlyTheSnapshot) {
  EXPECT_FALSE(retire_snapshot_files(manifest, root / ""));
  EXPECT_FALSE(fs::exists(root));
  EXPECT_TRUE(fs::exists(root.parent_path()));
  EXPECT_FALSE(retire_snapshot_files(manifest, root)) << "a root that never existed";
}

TEST_F(Tree, KeepsWhatIsNotTheSnapshots) {
  write_bytes(root / "a/b/mine", "user");
  EXPECT_TRUE(retire_snapshot_files(manifest, root));
  EXPECT_EQ(tree_content(root), (std::map<std::string, std::string>{{"a/b/mine", "user"}}));
  EXPECT_FALSE(fs::exists(root / "c"));
}

TEST_F(Tree, IsProvedWholeBeforeAnythingIsRetired) {
  fs::remove(root / "five");
  fs::create_symlink("c/four", root / "five");
  EXPECT_THAT(failure_of([&] { retire_snapshot_files(manifest, root); }),
              StartsWith("unsafe_path: Managed path contains a symbolic link"));
  fs::remove(root / "five");
  fs::create_directory(root / "five");
  EXPECT_EQ(failure_of([&] { retire_snapshot_files(manifest, root); }),
            "unsafe_path: A managed snapshot path became a link or special file; it was preserved");
  EXPECT_EQ(tree_content(root).size(), files.size() - 1);
}

TEST_F(Tree, StopsAtAPathThatChangesDuringTheRun) {
  int ticks = 0;
  const auto tick = [&] {
    if (++ticks != 2) return;
    fs::remove(root / "five");
    fs::create_directory(root / "five");
  };
  EXPECT_EQ(failure_of([&] { retire_snapshot_files(manifest, root, tick); }),
            "unsafe_path: Changed managed paths were preserved");
  EXPECT_TRUE(fs::is_directory(root / "five"));
}

TEST_F(Tree, IsRetiredByAFurtherCallWhereverTheFirstOneStops) {
  for (unsigned stop = 1; stop <= files.size(); ++stop) {
    write_tree(files, root);
    unsigned ticks = 0;
    const auto tick = [&] {
      if (++ticks == stop) throw Error("cancelled", "stop");
    };
    EXPECT_EQ(code_of([&] { retire_snapshot_files(manifest, root, tick); }), "cancelled");
    EXPECT_EQ(tree_content(root).size(), files.size() - stop + 1);
    EXPECT_FALSE(retire_snapshot_files(manifest, root));
    EXPECT_FALSE(fs::exists(root));
  }
}

TEST_F(Tree, IsRetiredByAFurtherCallWhicheverCallFails) {
  for (const auto fault : {Fault::fail, Fault::cut}) {
    const int struck = strike_each_call(
        fault, EIO, [&] { write_tree(files, root), write_bytes(root / "c/mine", "user"); },
        [&] { retire_snapshot_files(manifest, root); },
        [&](const Stop& stop) {
          SCOPED_TRACE(stop.call);
          EXPECT_TRUE(retire_snapshot_files(manifest, root));
          EXPECT_EQ(tree_content(root), (std::map<std::string, std::string>{{"c/mine", "user"}}));
        });
    // Five files, the directories a and a/b, and the three that changed.
    EXPECT_EQ(struck, 5 + 2 + 2);
  }
}

TEST_F(Tree, SyncsEachChangedDirectoryOnce) {
  const FailNthCall count(0, EIO, Fault::fail, "fsync");
  EXPECT_FALSE(retire_snapshot_files(manifest, root));
  EXPECT_EQ(count.calls(), 1) << "only the parent of the root is left to sync";
}

}  // namespace
}  // namespace tavro
