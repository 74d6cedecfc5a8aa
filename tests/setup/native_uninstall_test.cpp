#include "setup/native_uninstall.h"

#include "launcher/launcher_store.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"

namespace tavro::native_uninstall_test {

class Uninstall : public testing::Test {
 protected:
  Uninstall() {
    at.install();
    put_file(outside / "file", "not ours");
    fs::create_directory_symlink(outside, paths.root / "link");
    put_file(paths.root / "notes.txt", "unknown, but in the installation's folder");
    at.add_player_data();
  }

  Installation at;
  const DataPaths& paths = at.paths;
  const fs::path outside = at.folder.path() / "outside";
  const fs::path clean = at.folder.path() / "clean";
};

TEST_F(Uninstall, TakesTheFolderAndKeepsOnlyPlayerData) {
  const auto result = at.uninstall();
  EXPECT_TRUE(result.kept.size() == 2 && !result.data_removed);
  EXPECT_EQ(tree_content(paths.root).size(), 2U);
  const auto refusal = "not_installed: Tavro is not installed in " + paths.root.string();
  EXPECT_EQ(failure_of([&] { at.uninstall(true); }), refusal);
  EXPECT_EQ(failure_of([&] { NativeInstaller::remove_shortcuts(paths.root); }), refusal);
  EXPECT_TRUE(at.keeps_player_data());
  put_file(paths.incomplete_marker, "");
  EXPECT_TRUE(at.uninstall(true).data_removed);
  EXPECT_EQ(tree_content(outside).size(), 1U);
}

/// A failure leaves what a second run completes; a full disk is no failure, for it is to be freed.
TEST_F(Uninstall, EndsWellFromEveryPointOfFailure) {
  const auto check = [&](const Stop& stop) {
    EXPECT_TRUE(stop.call != "write" || stop.code.empty());
    EXPECT_EQ(at.status().installed || at.status().incomplete, !stop.code.empty());
    if (!stop.code.empty()) at.uninstall();
    // A lock that cannot be removed stays, and does no harm.
    const bool lock_stays = stop.code.empty() && stop.call == "unlinkat";
    EXPECT_EQ(tree_content(paths.root).size(), lock_stays ? 3U : 2U);
    EXPECT_TRUE(at.keeps_player_data());
  };
  copy_tree(paths.root, clean);
  const auto prepare = [&] { copy_tree(clean, paths.root); };
  const auto work = [&] { at.uninstall(); };
  EXPECT_GT(strike_each_call(Fault::fail, ENOSPC, prepare, work, check), 20);
}

TEST_F(Uninstall, RemovesALinkInPlaceOfTheNativeFolderAsALink) {
  fs::rename(paths.native, outside / "native");
  fs::create_directory_symlink(outside / "native", paths.native);
  const auto before = tree_content(outside);
  EXPECT_EQ(at.uninstall().kept.size(), 2U);
  EXPECT_EQ(tree_content(outside), before);
}

TEST_F(Uninstall, WaitsForTavroToClose) {
  const auto store = LauncherStore::existing(paths.root);
  auto lease = store->version_guard(store->load().at("candidate"), LockMode::shared);
  std::optional<FileLock> played;
  const fs::path leases = paths.root / "games/space/leases";
  played.emplace(leases / "1.lock", false, LockMode::shared);
  EXPECT_EQ(code_of([&] { at.repair(); }), "tavro_running");
  const auto before = tree_content(paths.root);
  int polls = 0;
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = [&] {
    if (++polls == 3) lease.reset();
    if (polls == 4) played.reset();
    return false;
  };
  const auto uninstall = [&](std::chrono::milliseconds timeout) {
    return code_of([&] { NativeInstaller::uninstall({paths.root, true, timeout}, callbacks); });
  };
  EXPECT_EQ(uninstall(std::chrono::milliseconds(150)), "tavro_running");
  EXPECT_EQ(polls, 2);
  EXPECT_EQ(tree_content(paths.root), before);
  EXPECT_EQ(uninstall(std::chrono::hours(1)), "");
}

}  // namespace tavro::native_uninstall_test
