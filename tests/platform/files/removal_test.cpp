#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/snapshot_retirement.h"
#include "platform/files/torn_write.h"
#include "platform/storage/allocated_file.h"
#include "platform/storage/reserved_tree.h"
#include "platform/storage/storage_volume.h"
#include "support/fail_nth_call.h"
#include "support/snapshot_archive.h"

namespace tavro::removal_test {

const std::vector<TarEntry> sample = {{"data/a/file", "own"}, {"data/b/file", "own"}};

/// Exchanges two names for as long as it lives.
class Neighbour {
 public:
  Neighbour(fs::path left, fs::path right)
      : thread_([this, left = std::move(left), right = std::move(right)] {
          while (!stop_)
            ::renameat2(AT_FDCWD, left.c_str(), AT_FDCWD, right.c_str(), RENAME_EXCHANGE);
        }) {}
  ~Neighbour() { stop_ = true, thread_.join(); }

 private:
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

/// A refusal is as good as a removal.
void attempt(const std::function<void()>& removal) {
  try {
    removal();
  } catch (const std::exception&) {
  }
}

class Removal : public ::testing::Test {
 protected:
  TempFolder folder;
  const fs::path at = folder.path(), root = at / "tree", foreign = at / "foreign";
};

TEST_F(Removal, TouchesNothingForeignWhateverIsExchangedMeanwhile) {
  const auto manifest = manifest_of(sample, "");
  const std::function<void()> removals[] = {[&] { retire_snapshot_files(manifest, root); },
                                            [&] { remove_plain_tree(root); },
                                            [&] { remove_path_quietly(root); }};
  for (const auto& removal : removals)
    for (int round = 0; round < 60; ++round) {
      write_tree(sample, root);
      for (const char* name : {"a", "b", "empty"}) fs::create_directories(foreign / name);
      for (const char* name : {"a/file", "b/file"}) write_bytes(foreign / name, "foreign");
      fs::create_directories(root / "data/empty");
      fs::create_directory_symlink(foreign, at / "link");
      {
        const Neighbour neighbour(root / "data", at / "link");
        attempt(removal);
      }
      ASSERT_TRUE(fs::exists(foreign / "a/file") && fs::exists(foreign / "b/file") &&
                  fs::exists(foreign / "empty"))
          << round;
      for (const auto& path : {root, at / "link", foreign}) fs::remove_all(path);
    }
}

TEST_F(Removal, OfAReservedTreeKeepsTheStranger) {
  int kept = 0;
  for (int round = 0; round < 60; ++round) {
    fs::create_directory(root), fs::create_directory(foreign);
    write_bytes(root / "file", "own"), write_bytes(foreign / "file", "foreign");
    const auto identity = inspect_storage_directory(root);
    {
      const Neighbour neighbour(root, foreign);
      attempt([&] { dispose_install_root(root, identity, true); });
    }
    for (const auto& path : {root, foreign})
      kept += fs::exists(path / "file") && fs::file_size(path / "file") == 7 ? 1 : 0;
    fs::remove_all(root), fs::remove_all(foreign);
  }
  EXPECT_EQ(kept, 60);
}

fs::path left, right;
/// Right before the first call that changes the name.
void exchange_once() {
  if (!left.empty()) ::renameat2(AT_FDCWD, left.c_str(), AT_FDCWD, right.c_str(), RENAME_EXCHANGE);
  left.clear();
}

TEST_F(Removal, OfAFileGivesAStrangerItsNameBack) {
  SystemCalls calls = system_calls();
  calls.renameat2 = [](auto... arguments) { return exchange_once(), ::renameat2(arguments...); };
  calls.unlinkat = [](auto... arguments) { return exchange_once(), ::unlinkat(arguments...); };
  fs::create_directory(root), write_bytes(root / "stranger", "foreign");
  {
    const SystemCallScope scope(calls);
    AllocatedFile file(root / "file", 3, {});
    left = root / "file", right = root / "stranger";
  }
  EXPECT_EQ(tree_content(root)["file"], "foreign");
  EXPECT_EQ(tree_content(root).size(), 2U) << "the own file was moved away, and stays there";
}

TEST_F(Removal, CanBeCutAnywhereAndIsCompletedByTheNext) {
  const auto prepare = [&] { write_tree(sample, root); };
  const auto work = [&] { remove_plain_tree(root); };
  const auto check = [&](const Stop& stop) {
    EXPECT_TRUE(stop.call.empty() || !stop.code.empty());
    remove_plain_tree(root);
    EXPECT_FALSE(fs::exists(root));
  };
  EXPECT_GE(strike_each_call(Fault::cut, EIO, prepare, work, check), 6);
  write_bytes(root, "");
  EXPECT_TRUE(native_files::remove_quietly(root) && native_files::remove_quietly(root));
}

TEST_F(Removal, OfCutWritesTakesOnlyWhatIsProvablyOurs) {
  const std::string nonce = "." + std::string(32, 'a') + ".tmp";
  const auto make = [&](const std::string& name, mode_t mode) {
    write_bytes(at / name, "{"), ::chmod((at / name).c_str(), mode);
  };
  make("state.json" + nonce, 0600), make("open.json" + nonce, 0644),
      make("other.json" + nonce, 0600);
  make("linked.json" + nonce, 0600), make("state.json", 0600), make("state.json.x.tmp", 0600);
  fs::create_hard_link(at / ("linked.json" + nonce), at / "second");
  fs::create_directory(at / ("folder.json" + nonce));
  torn_write::remove_leftovers(at, {"state.json", "open.json", "linked.json", "folder.json"});
  EXPECT_FALSE(fs::exists(at / ("state.json" + nonce)));
  EXPECT_EQ(std::distance(fs::directory_iterator(at), {}), 7);
}

TEST_F(Removal, AndWorkGoOnInAFolderOfAnyName) {
  const fs::path odd = at / "a\b:c\n\"'%$ ";
  fs::create_directory(odd);
  EXPECT_NO_THROW(require_unlinked(odd));
  fs::create_directory_symlink(odd, at / "link");
  EXPECT_EQ(code_of([&] { require_unlinked(at / "link" / "x"); }), "unsafe_path");
}

}  // namespace tavro::removal_test
