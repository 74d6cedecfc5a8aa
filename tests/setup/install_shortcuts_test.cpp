// The shortcuts of a data folder, as the setup commands treat them.

#include <unistd.h>

#include "installation/installed_brand.h"
#include "support/installation.h"

namespace tavro::install_shortcuts_test {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(InstallShortcuts, ComeWithAnInstallComeBackWithARepairAndGoWithIt) {
  Installation at;
  const auto installed = at.install();
  ASSERT_EQ(installed.shortcuts.size(), 1U);
  const fs::path launcher = installed.shortcuts.front();
  const std::string text = read_file(launcher, 65536);
  EXPECT_THAT(text, HasSubstr("\nName=Tavro\n"));
  EXPECT_THAT(text, HasSubstr("\nTryExec=" + installed.bootstrap.string() + "\n"));
  const fs::path game = NativeInstaller::create_shortcut(at.paths.root, "fox", {}, {});
  EXPECT_THAT(read_file(game, 65536), HasSubstr(" --gui --launch fox\n"));
  EXPECT_EQ(NativeInstaller::create_shortcut(at.paths.root, "fox", {}, {}), game);
  const fs::path own = at.folder.path() / "Own.desktop";
  NativeInstaller::create_shortcut(at.paths.root, "", own, "My own");
  const fs::path linked = at.folder.path() / "Linked.desktop";
  NativeInstaller::create_shortcut(at.paths.root, "", linked, {});
  EXPECT_THAT(at.status().shortcuts, ElementsAre(launcher, game, own, linked));

  fs::remove(launcher);
  put_file(game, "the user's");
  EXPECT_EQ(code_of([&] { NativeInstaller::create_shortcut(at.paths.root, "fox", {}, {}); }),
            "already_exists");
  fs::remove(linked);
  fs::create_symlink(own, linked);
  EXPECT_THAT(at.repair().shortcuts, ElementsAre(launcher));
  EXPECT_EQ(read_file(launcher, 65536), text);
  fs::remove(launcher);
  const auto removed = at.uninstall();
  EXPECT_THAT(removed.changed_shortcuts, ElementsAre(game, linked));
  EXPECT_FALSE(stands(launcher) || stands(own));
  EXPECT_TRUE(fs::is_symlink(linked));
  EXPECT_EQ(read_file(game, 65536), "the user's");
  EXPECT_EQ(code_of([&] { NativeInstaller::create_shortcut(at.paths.root, "", {}, {}); }),
            "not_installed");
}

TEST(InstallShortcuts, CarryTheBrandAndLeaveItsGameToTheFrontEnd) {
  SealedPackageOptions options;
  options.brand = Brand{"Fox Den", "fox-den", "Northwind Games", true};
  options.icon = sample_icon();
  Installation branded_one(options);
  const auto shortcuts = branded_one.install().shortcuts;
  ASSERT_EQ(shortcuts.size(), 1U);
  const std::string text = read_file(shortcuts.front(), 65536);
  EXPECT_THAT(
      text,
      HasSubstr("\nName=Fox Den\nIcon=" + brand_icon_path(branded_one.paths.root).string() + "\n"));
  options.featured_game = FeaturedGame{"fox", "Fox"};
  Installation featured(options);
  EXPECT_THAT(featured.install().shortcuts, IsEmpty());
}

TEST(InstallShortcuts, FailNothing) {
  Installation at;
  const fs::path menu = at.folder.path() / "share/applications";
  put_file(menu.parent_path(), "a file in its place");
  const auto result = at.install();
  EXPECT_THAT(result.shortcuts, IsEmpty());
  EXPECT_NE(result.shortcut_problem, "");
  EXPECT_EQ(at.status().last_operation->message, result.shortcut_problem);
  EXPECT_EQ(at.status().last_operation->outcome, "succeeded");
  fs::remove(menu.parent_path());
  const fs::path made = NativeInstaller::create_shortcut(at.paths.root, "", {}, {});
  put_file(at.paths.native / "shortcuts.json", R"({"schema_version": 2})");
  EXPECT_NE(at.repair().shortcut_problem, "") << "a newer version's list stays";
  EXPECT_EQ(code_of([&] { at.status(); }), "shortcut_ledger");
  EXPECT_THAT(at.uninstall().changed_shortcuts, ElementsAre(made));
  EXPECT_TRUE(stands(made));
}

TEST(InstallShortcuts, FindTheirOwnerAgain) {
  Installation at;
  const fs::path launcher = at.install().shortcuts.front();
  const fs::path game = NativeInstaller::create_shortcut(at.paths.root, "fox", {}, {});
  const fs::path named = NativeInstaller::create_shortcut(at.paths.root, "den", {}, "Den \\ Own");
  const fs::path ledger = at.paths.native / "shortcuts.json";
  if (geteuid() != 0) {
    fs::permissions(ledger, fs::perms::none);
    EXPECT_NE(at.repair().shortcut_problem, "");
    EXPECT_TRUE(stands(ledger)) << "it may be readable the next time";
    fs::permissions(ledger, fs::perms::owner_read | fs::perms::owner_write);
  }
  put_file(ledger, "torn");
  EXPECT_THAT(at.repair().mended, testing::SizeIs(3));
  EXPECT_THAT(at.status().shortcuts, UnorderedElementsAre(launcher, game)) << "none with a name";
  fs::remove(ledger);
  EXPECT_FALSE(NativeInstaller::make_shortcut(at.paths.root, "", {}, {}).created);
  EXPECT_THAT(at.repair().mended, IsEmpty()) << "the list tells of all that is the system's";
  put_file(ledger, "torn");
  put_file(game, "the user's");
  EXPECT_THAT(at.uninstall().changed_shortcuts, UnorderedElementsAre(game, named));
  EXPECT_FALSE(stands(launcher));
}

TEST(InstallShortcuts, AreTheUsersOnceChanged) {
  Installation at;
  const fs::path launcher = at.install().shortcuts.front();
  std::string text = read_file(launcher, 65536);
  put_file(launcher, text.replace(text.find("Name=Tavro"), 10, "Name=Mine"));
  EXPECT_THAT(NativeInstaller::remove_shortcuts(at.paths.root).changed, ElementsAre(launcher));
  const auto repaired = at.repair();
  EXPECT_TRUE(repaired.mended.empty() && repaired.shortcut_problem.empty());
  at.uninstall();
  EXPECT_EQ(read_file(launcher, 65536), text);
}

TEST(InstallShortcuts, OneThatCannotBeReadDoesNotKeepTheOthers) {
  Installation at;
  const fs::path launcher = at.install().shortcuts.front();
  const fs::path huge = NativeInstaller::create_shortcut(at.paths.root, "a", {}, {});
  const fs::path last = NativeInstaller::create_shortcut(at.paths.root, "b", {}, {});
  put_file(huge, std::string(65537, 'x'));
  EXPECT_EQ(code_of([&] { NativeInstaller::remove_shortcuts(at.paths.root); }), "size_limit");
  EXPECT_FALSE(stands(launcher) || stands(last));
  EXPECT_THAT(at.uninstall().changed_shortcuts, ElementsAre(huge));
}

TEST(InstallShortcuts, FollowARenamedFolderAndLeaveThoseOfAnotherOne) {
  Installation at;
  const fs::path before = at.install().shortcuts.front(), old = at.paths.root;
  const fs::path own = at.folder.path() / "Own.desktop", disk = at.folder.path() / "disk";
  NativeInstaller::create_shortcut(old, "", own, "My own");
  at.paths = DataPaths(at.folder.path() / "renamed");
  copy_tree(old, at.paths.root);
  const fs::path copied = at.repair().shortcuts.at(0);
  EXPECT_TRUE(copied != before && stands(copied) && stands(before));
  at.uninstall();
  EXPECT_TRUE(stands(before));
  fs::rename(old, at.paths.root);
  EXPECT_THAT(at.repair().shortcuts, ElementsAre(copied, own));
  EXPECT_FALSE(stands(before));
  EXPECT_THAT(at.status().shortcuts, UnorderedElementsAre(copied, own));
  EXPECT_THAT(read_file(own, 65536), HasSubstr("\nTryExec=" + at.paths.root.string()));
  // What is not mounted is not gone.
  fs::create_directory(disk);
  fs::rename(at.paths.root, disk / "data");
  at.paths = DataPaths(disk / "data");
  const fs::path there = at.repair().shortcuts.at(0);
  copy_tree(disk / "data", old);
  fs::rename(disk, at.folder.path() / "unplugged");
  at.paths = DataPaths(old);
  EXPECT_THAT(at.repair().shortcuts, testing::Contains(before));
  EXPECT_TRUE(stands(there) && stands(own));
}

TEST(InstallShortcuts, NameWhatTheyRefuse) {
  Installation at;
  at.install();
  const fs::path taken = at.folder.path() / "Taken.desktop", way = at.folder.path() / "way";
  put_file(taken, "");
  fs::create_directory_symlink(at.folder.path(), way);
  const auto refusal = [&](const fs::path& path) {
    return failure_of([&] { NativeInstaller::create_shortcut(at.paths.root, "", path, {}); });
  };
  EXPECT_THAT(refusal(taken), testing::EndsWith(": " + taken.string()));
  EXPECT_THAT(refusal(way / "New.desktop"), testing::EndsWith(": " + way.string()));
}

}  // namespace tavro::install_shortcuts_test
