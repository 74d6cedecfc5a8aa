#include "setup/native_commit.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/installed_brand.h"
#include "self_update/bootstrap_update.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"
#include "support/theme_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

SealedPackageOptions branded_options(const fs::path& theme) {
  SealedPackageOptions options;
  options.brand = Brand{"Northwind", "northwind", "Northwind Games", true};
  options.icon = sample_icon();
  options.ca_bundle = "bundle";
  options.bootstrap_files = options.launcher_files = 1;
  options.theme = theme;
  return options;
}

/// A complete installation of a branded package with every part staged, and a copy of it.
class Commit : public testing::Test {
 protected:
  Commit() {
    at.install();
    at.add_player_data();
    put_file(paths.native / "bootstrap-update.json", "pending");
    put_file(paths.native / "bootstrap-update/file", "staged");
    put_file(theme_directory(paths.root) / "b.txt", "of an earlier package");
    copy_tree(paths.bootstrap, paths.staging / "bootstrap");
    copy_tree(paths.launcher, paths.staging / "launcher-root/launcher");
    copy_tree(paths.trust, paths.staging / "trust");
    for (const auto& part : {paths.bootstrap, paths.launcher, paths.trust})
      put_file(part / "old", "");
    copy_tree(paths.root, staged);
  }

  bool is_old(const fs::path& part) { return stands(part / "old"); }

  static fs::path write_theme(const fs::path& folder) {
    json definition = theme_definition();
    definition.erase("fonts");
    definition.erase("images");
    definition["notices"] = {"a.txt"};
    put_file(folder / "theme.json", definition.dump());
    put_file(folder / "a.txt", "notice");
    return folder;
  }

  TempFolder theme;
  Installation at{branded_options(write_theme(theme.path()))};
  const DataPaths& paths = at.paths;
  const fs::path staged = at.folder.path() / "staged";
  NativePackage package = read_native_package(at.package.folder, at.package.seal);
};

TEST_F(Commit, ReplacesThePlannedPartsAndRewritesTheRecords) {
  put_file(paths.repository, "{}");
  commit(paths, package, {});
  EXPECT_FALSE(is_old(paths.bootstrap) || is_old(paths.launcher) || is_old(paths.trust));
  for (const auto* gone : {"bootstrap-update.json", "bootstrap-update", "staging"})
    EXPECT_FALSE(stands(paths.native / gone)) << gone;
  EXPECT_EQ(tree_content(theme_directory(paths.root)), tree_content(theme.path()));
  const json repository = json::parse(read_file(paths.repository, 4096));
  EXPECT_EQ(read_file(repository.at("ca_bundle").get<std::string>(), 4096), "bundle");
  EXPECT_EQ(read_file(brand_icon_path(paths.root), 4096), sample_icon());
  EXPECT_EQ(installed_brand(paths.root)->publisher, "Northwind Games");
  EXPECT_TRUE(at.repair().replaced.empty());
}

TEST_F(Commit, KeepsUnplannedPartsAndDropsWhatThePackageLacks) {
  package.brand.reset();
  package.brand_icon.clear();
  package.theme.reset();
  package.ca_bundle.clear();
  commit(paths, package, {false, false, false});
  EXPECT_TRUE(is_old(paths.bootstrap) && is_old(paths.launcher) && is_old(paths.trust));
  EXPECT_TRUE(bootstrap_update_pending(paths.root) && stands(paths.repository_ca));
  EXPECT_FALSE(stands(brand_icon_path(paths.root)) || stands(theme_directory(paths.root)));
  EXPECT_EQ(json::parse(read_file(paths.repository, 4096)).at("ca_bundle"), "");
  EXPECT_FALSE(installed_brand(paths.root));
}

TEST_F(Commit, RefusesAFolderThatItCouldNotRecordBeforeAnythingChanges) {
  const fs::path renamed = at.folder.path() / "data\xff";
  fs::rename(paths.root, renamed);
  EXPECT_EQ(code_of([&] { commit(DataPaths(renamed), package, {}); }), "unsafe_path");
  EXPECT_EQ(tree_content(renamed), tree_content(staged));
}

TEST(Installed, ThemeIsInForceOnceItsBrandIs) {
  const TempFolder folder;
  SealedPackageOptions options = branded_options(folder.path() / "theme");
  make_theme(options.theme);
  Installation at{options};
  at.install();
  use_installed_brand(at.paths.root);
  EXPECT_EQ(theme().banner.value().path, theme_directory(at.paths.root) / "Banner.BMP");
  fs::remove(theme().regular_font);
  set_theme({});
  use_installed_brand(at.paths.root);
  EXPECT_FALSE(theme().banner);
  set_product_name("Tavro");
  set_product_icon({});
}

/// Wherever the commit fails or is cut off, the folder tells the truth, and a repair or an
/// uninstall ends well.
TEST_F(Commit, CanBeFinishedFromEveryPointOfFailure) {
  for (const auto fault : {Fault::fail, Fault::cut}) {
    bool marked = false;
    const auto check = [&](const Stop& stop) {
      // Leftovers go as far as they can be removed; all else that fails is told.
      EXPECT_TRUE(stop.code.empty() == stop.call.empty() ||
                  (stop.code.empty() && stop.call == "unlinkat"))
          << "a failure went unnoticed";
      const auto status = at.status();
      EXPECT_TRUE(!stop.code.empty() || status.installed);
      EXPECT_NE(status.installed, status.incomplete);
      // Once the marker stands, only its removal ends the unfinished state.
      const bool whole = !is_old(paths.bootstrap) && !is_old(paths.trust) && !stands(paths.staging);
      EXPECT_TRUE(status.incomplete || !marked || whole);
      marked = marked || status.incomplete;
      if (fault == Fault::fail) return;
      // A name that is new may be all that a repair goes by.
      if (stop.call == "rename" || stop.call == "fsync") {
        at.repair();
        EXPECT_TRUE(at.status().installed && !stands(paths.staging));
        EXPECT_EQ(tree_content(theme_directory(paths.root)), tree_content(theme.path()));
        EXPECT_FALSE(bootstrap_update_pending(paths.root));
      } else {
        EXPECT_EQ(at.uninstall().kept.size(), 2U);
      }
      EXPECT_TRUE(at.keeps_player_data());
    };
    const auto prepare = [&] { copy_tree(staged, paths.root); };
    const auto work = [&] { commit(paths, package, {}); };
    EXPECT_GT(strike_each_call(fault, EIO, prepare, work, check), 30);
    EXPECT_TRUE(marked);
  }
}

}  // namespace
}  // namespace tavro
