// The shortcuts of a data folder, as the setup commands treat them.

#include "installation/installed_brand.h"
#include "support/installation.h"

namespace tavro::install_shortcuts_test {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
  put_file(at.paths.native / "shortcuts.json", "torn");
  EXPECT_NE(at.repair().shortcut_problem, "");
  EXPECT_EQ(code_of([&] { at.status(); }), "shortcut_ledger");
  EXPECT_TRUE(at.uninstall().data_removed);
  EXPECT_TRUE(stands(made));
}

}  // namespace tavro::install_shortcuts_test
