#include "platform/tree.h"

#include <sys/stat.h>

#include "support/fail_nth_call.h"
#include "support/snapshot_archive.h"

namespace tavro::tree_test {

class Tree : public ::testing::Test {
 protected:
  Tree() { write_tree(files, root); }

  TempFolder folder;
  const std::vector<TarEntry> files = {{"a/b/one", "1"}, {"a/b/two", "22"}, {"c/four", "4444"}};
  const SnapshotManifest manifest = manifest_of(files, "");
  const fs::path root = folder.path() / "tree";
};

TEST_F(Tree, IsRemovedOnlyWhenItHoldsWhatTheSystemMakes) {
  EXPECT_EQ(tree_bytes(root, 6), 7U);
  EXPECT_EQ(code_of([&] { tree_bytes(root, 5); }), "size_limit");
  EXPECT_EQ(::mkfifo((root / "a/odd").c_str(), 0600), 0);
  EXPECT_EQ(code_of([&] { remove_plain_tree(root); }), "unsafe_path");
  EXPECT_EQ(tree_content(root).size(), files.size());
  EXPECT_TRUE(remove_path_quietly(root / "a/odd"));
  remove_plain_tree(root / "");
  EXPECT_FALSE(fs::exists(root));
}

TEST_F(Tree, IsProvedWholeBeforeAnythingIsRetiredAndAgainFileByFile) {
  const auto tick = [&, ticks = 0]() mutable {
    if (++ticks == 2) fs::remove(root / "c/four"), fs::create_directory(root / "c/four");
  };
  EXPECT_EQ(failure_of([&] { retire_snapshot_files(manifest, root, tick); }),
            "unsafe_path: Changed managed paths were preserved");
  write_bytes(root / "a/b/one", "1");
  EXPECT_EQ(code_of([&] { retire_snapshot_files(manifest, root); }), "unsafe_path");
  EXPECT_EQ(tree_content(root).size(), 1U);
}

TEST_F(Tree, KeepsWhatIsNotTheSnapshotsWhicheverCallFailsAndGoesWithoutIt) {
  for (const int error : {EIO, EINTR}) {
    const auto prepare = [&] { write_tree(files, root), write_bytes(root / "c/mine", ""); };
    const auto work = [&] { retire_snapshot_files(manifest, root); };
    const auto check = [&](const Stop& stop) {
      EXPECT_EQ(stop.code.empty(), stop.call.empty() || error == EINTR);
      EXPECT_TRUE(retire_snapshot_files(manifest, root));
      EXPECT_TRUE(fs::exists(root / "c/mine") && !fs::exists(root / "a"));
    };
    // Three files, the directories a and a/b, and the two that changed and remain.
    EXPECT_EQ(strike_each_call(Fault::fail, error, prepare, work, check), 3 + 2 + 2);
  }
  fs::remove(root / "c/mine");
  const FailNthCall syncs(0, EIO, Fault::fail, "fsync");
  EXPECT_FALSE(retire_snapshot_files(manifest, root / "") || fs::exists(root));
  EXPECT_EQ(syncs.calls(), 1) << "of the parent of all that went";
}

}  // namespace tavro::tree_test
