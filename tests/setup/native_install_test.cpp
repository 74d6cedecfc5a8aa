#include "setup/native_install.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"

namespace tavro::native_install_test {

using Parts = std::vector<std::string>;

class Install : public testing::Test {
 protected:
  Installation at;
  const DataPaths& paths = at.paths;
  const fs::path outside = at.folder.path() / "outside";
};

TEST_F(Install, MakesAPrivateFolder) {
  const auto result = at.install();
  EXPECT_EQ(result.replaced, (Parts{"bootstrap", "launcher", "trust"}));
  EXPECT_TRUE(fs::is_regular_file(result.bootstrap));
  EXPECT_TRUE(result.to_json().at("shortcut_problem").is_null());
  EXPECT_EQ(at.status().last_operation->action, "install");
  for (const auto& folder : {paths.root, paths.native, paths.launcher, paths.trust})
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << folder;
}

TEST_F(Install, RefusesTheWrongStartingPointAndChangesNothing) {
  const std::string in = " in " + paths.root.string();
  const std::string foreign = "unsafe_path: Choose an empty folder or an earlier Tavro data folder";
  const std::vector<std::tuple<std::function<void()>, bool, std::string>> rows = {
      {[&] { at.add_player_data(); }, true, "not_installed: Tavro is not installed" + in},
      {[&] { put_file(paths.root / "notes.txt", ""); }, false, foreign},
      {[&] { put_file(paths.installation, "{}"); }, true,
       "unsupported_schema: Installation record is malformed: " + paths.installation.string()},
      {[&] { put_file(paths.native, "a letter"); }, true,
       "unsafe_path: Not a folder: " + paths.native.string() + "; move it away and try again"},
      {[&] { at.install(); }, false,
       "already_installed: Tavro is already installed" + in + "; use repair"},
  };
  for (const auto& [prepare, repair, failure] : rows) {
    fs::remove_all(paths.root);
    prepare();
    const auto before = tree_content(at.folder.path());
    EXPECT_EQ(failure_of([&, &repair = repair] { at.install(repair); }), failure);
    EXPECT_EQ(tree_content(at.folder.path()), before) << failure;
  }
  fs::remove_all(paths.root);
  const auto seal = std::exchange(at.package.seal, std::string(64, 'a'));
  EXPECT_EQ(code_of([&] { at.install(); }), "native_install_trust");
  EXPECT_FALSE(stands(paths.root));
  at.package.seal = seal;
  fs::create_directories(paths.native);
  fs::create_symlink("nowhere", paths.incomplete_marker);
  EXPECT_TRUE(at.status().incomplete) << "a marker is one whatever it is";
  put_file(paths.setup_lock, "x");
  EXPECT_TRUE(at.status().problems.empty()) << "of a folder that is being changed";
  for (const auto& root : {at.package.folder, at.package.folder / "data", at.folder.path()}) {
    at.paths = DataPaths(root);
    EXPECT_EQ(failure_of([&] { at.install(); }),
              "unsafe_path: The package and data folders overlap");
  }
}

TEST_F(Install, TakesAnEarlierFolderAndKeepsWhatIsNotItsOwn) {
  const std::vector<std::function<void()>> folders = {
      [&] { put_file(paths.setup_lock, ""), fs::permissions(paths.setup_lock, fs::perms(0600)); },
      [&] { put_file(paths.setup_lock.string() + ".set-aside-by-an-earlier-run", "x"); },
      [&] { at.add_player_data(), put_file(paths.root / "notes.txt", "mine"); },
      [&] { at.install(), at.add_player_data(), put_file(paths.incomplete_marker, ""); },
      [&] { put_file(paths.incomplete_marker, ""), put_file(paths.launcher, "a file"); },
  };
  for (const auto& prepare : folders) {
    fs::remove_all(paths.root);
    prepare();
    const auto before = tree_content(paths.root);
    EXPECT_EQ(at.install().replaced.size(), 3U);
    EXPECT_TRUE(at.status().installed);
    auto after = tree_content(paths.root);
    for (const auto* kept : {"userdata/game/save.bin", "settings.json", "notes.txt"})
      EXPECT_EQ(after.count(kept), before.count(kept)) << kept;
  }
}

TEST_F(Install, RepairsOnlyWhatDoesNotProveIntact) {
  at.install();
  at.add_player_data();
  copy_tree(paths.root, at.folder.path() / "good");
  put_file(outside / "stray.old", "not ours");
  put_file(outside / "root.json", "{}");
  const auto others = tree_content(outside);
  const auto link = [&](const fs::path& part) {
    fs::remove_all(part);
    fs::create_directory_symlink(outside, part);
  };
  const auto version = [&] { return *fs::directory_iterator(paths.launcher / "versions"); };
  const std::vector<std::pair<std::function<void()>, Parts>> rows = {
      {[&] { put_file(paths.bootstrap / "bin/stray.old", "left by an update"); }, {}},
      {[&] { put_file(paths.bootstrap_manifest, "{}"); }, {"bootstrap"}},
      {[&] { link(paths.bootstrap); }, {"bootstrap"}},
      {[&] { put_file(version().path() / "stray", ""); }, {"launcher"}},
      {[&] { fs::create_symlink(outside, version().path() / "link"); }, {"launcher"}},
      {[&] { fs::remove(paths.launcher / "installation.json"); }, {"launcher"}},
      {[&] { link(paths.launcher); }, {"launcher"}},
      {[&] { put_file(paths.trust / "root.json", "{"); }, {"trust"}},
      {[&] { link(paths.trust), put_file(paths.bootstrap / "stray", ""); }, {"bootstrap", "trust"}},
      {[&] { put_file(paths.incomplete_marker, ""); }, {"launcher"}},
  };
  for (std::size_t row = 0; row < rows.size(); ++row) {
    SCOPED_TRACE(row);
    copy_tree(at.folder.path() / "good", paths.root);
    rows[row].first();
    EXPECT_EQ(at.repair().replaced, rows[row].second);
    EXPECT_TRUE(at.repair().replaced.empty());
    EXPECT_TRUE(at.keeps_player_data());
    EXPECT_EQ(tree_content(outside), others);
    EXPECT_FALSE(stands(paths.bootstrap / "bin/stray.old"));
  }
}

/// Each damage is told with the name of the file, mended by a repair, and no obstacle to a removal.
TEST_F(Install, MendsTheFormOfItsFiles) {
  at.install();
  const fs::path good = at.folder.path() / "good";
  copy_tree(paths.root, good);
  const auto open_up = [](const fs::path& file) { fs::permissions(file, fs::perms(0664)); };
  const auto fill = [](const fs::path& file) { put_file(file, "x"); };
  const auto folder = [](const fs::path& file) {
    fs::remove_all(file);
    put_file(file / "kept", "");
  };
  const auto link = [&](const fs::path& file) {
    fs::remove_all(file);
    fs::create_symlink(outside, file);
  };
  const fs::path lock = paths.launcher / "bootstrap.lock", leases = paths.launcher / "leases";
  const fs::path theme = paths.native / "theme";
  const std::vector<std::pair<fs::path, std::function<void(const fs::path&)>>> rows = {
      {paths.setup_lock, open_up},
      {paths.bootstrap_lock, open_up},
      {lock, open_up},
      {paths.native / "shortcuts.lock", open_up},
      {paths.setup_lock, fill},
      {paths.bootstrap_lock, fill},
      {paths.setup_lock, folder},
      {paths.bootstrap_lock, link},
      {lock,
       [&](const fs::path& file) { fs::create_hard_link(file, at.folder.path() / random_id()); }},
      {leases, [](const fs::path& path) { fs::remove_all(path), put_file(path, ""); }},
      {paths.incomplete_marker, folder},
      {paths.incomplete_marker, link},
      {paths.bootstrap_manifest, folder},
      {paths.repository, link},
      {paths.setup_status, folder},
      {paths.installation, folder},
      {theme, fill},
  };
  const auto told = [&](const fs::path& file) {
    const auto status = failure_of([&] { at.status(); });
    std::string problems = status;
    if (status.empty())
      for (const auto& problem : at.status().problems) problems += problem + '\n';
    return problems.find(file.string()) != problems.npos;
  };
  for (const auto& [file, damage] : rows) {
    SCOPED_TRACE(file);
    const auto prepare = [&, &file = file, &damage = damage] {
      copy_tree(good, paths.root);
      if (file != paths.incomplete_marker && !stands(file)) put_file(file, "");
      damage(file);
    };
    prepare();
    EXPECT_TRUE(told(file) || file == paths.incomplete_marker);
    const auto mended = at.repair().mended;
    ASSERT_EQ(mended.size(), 1U);
    EXPECT_THAT(mended.front(), testing::StartsWith(file.string()));
    EXPECT_TRUE(at.status().installed && at.status().problems.empty());
    EXPECT_TRUE(at.repair().mended.empty());
    prepare();
    EXPECT_TRUE(at.uninstall().data_removed);
  }
}

TEST_F(Install, MendsItsLockWhileNobodyElseDoes) {
  at.install();
  put_file(paths.setup_lock, "x");
  static int guarded = 0;
  SystemCalls calls = system_calls();
  calls.rename = [](const char* from, const char* to) {
    const fs::path lock = from;
    const UniqueFd folder = posix_files::open(lock.parent_path(), O_RDONLY);
    if (lock.filename() == ".tavro-setup.lock")
      guarded += ::flock(folder.get(), LOCK_EX | LOCK_NB) != 0 ? 1 : 0;
    return ::rename(from, to);
  };
  const SystemCallScope watching(calls);
  EXPECT_EQ(at.repair().mended.size(), 1U);
  put_file(paths.setup_lock, "x");
  at.uninstall();
  EXPECT_EQ(guarded, 2);
}

TEST_F(Install, OpensItsOwnFoldersAgain) {
  at.install();
  const fs::path good = at.folder.path() / "good";
  copy_tree(paths.root, good);
  for (const auto& folder : {paths.launcher, paths.launcher / "leases/versions", paths.trust,
                             paths.launcher / "manifests", paths.bootstrap / "bin"}) {
    SCOPED_TRACE(folder);
    const auto close = [&] { copy_tree(good, paths.root), ::chmod(folder.c_str(), 0); };
    close();
    const auto result = at.repair();
    EXPECT_THAT(result.mended,
                testing::ElementsAre(folder.string() + " was opened to this user again"));
    EXPECT_TRUE(result.replaced.empty());
    close();
    EXPECT_TRUE(at.uninstall().data_removed);
  }
}

TEST_F(Install, ClearsWhatFailedStartsAndCutOffWritesLeft) {
  at.install();
  const std::string id(32, 'a');
  const std::vector<fs::path> left = {paths.launcher / "start-attempt.json",
                                      paths.root / (".tavro-setup-incomplete." + id + ".tmp"),
                                      paths.root / ("repository.json." + id + ".tmp"),
                                      paths.native / ("bootstrap.json." + id + ".tmp"),
                                      paths.native / ("shortcuts.json." + id + ".tmp")};
  for (const auto& file : left) {
    put_file(file, "{");
    fs::permissions(file, fs::perms(0600));
  }
  at.repair();
  for (const auto& file : left) EXPECT_FALSE(stands(file)) << file;
}

TEST_F(Install, ProvesTheTrustFolder) {
  at.install();
  put_file(paths.trust / "timestamp.json", "{}");
  EXPECT_THAT(at.repair().mended,
              testing::ElementsAre(testing::StartsWith((paths.trust / "timestamp.json").string())));
  EXPECT_TRUE(at.repair().mended.empty());
  // One that cannot be mended now costs nothing else, not even with the marker standing.
  put_file(paths.trust / "timestamp.json", "{}");
  fs::remove(paths.setup_status);
  fs::create_directory(paths.setup_status);
  {
    SystemCalls calls = system_calls();
    calls.fsync = [](int file) {
      return fs::read_symlink("/proc/self/fd/" + std::to_string(file)).filename() == "trust"
                 ? (errno = EIO, -1)
                 : ::fsync(file);
    };
    const SystemCallScope failing(calls);
    EXPECT_THAT(at.repair().mended,
                testing::ElementsAre(testing::HasSubstr("trust could not be mended: "),
                                     testing::StartsWith(paths.setup_status.string())));
  }
  EXPECT_TRUE(at.repair().replaced.empty());
}

TEST_F(Install, WorksInAFolderOfAnyName) {
  for (const auto* name : {"back\\slash", "co:lon", "line\nbreak"}) {
    SCOPED_TRACE(name);
    at.paths = DataPaths(at.folder.path() / name);
    EXPECT_EQ(failure_of([&] { at.install(); }), "");
    EXPECT_TRUE(at.status().installed);
    const bool shown = std::string(name).find('\n') == std::string::npos;
    EXPECT_EQ(at.status().shortcuts.size(), shown ? 1U : 0U);
    EXPECT_TRUE(at.repair().replaced.empty());
    EXPECT_TRUE(at.uninstall().data_removed);
  }
}

}  // namespace tavro::native_install_test
