// How a client is removed by its own helpers, in this process and by the real programs.

#include <sys/stat.h>

#include <atomic>

#include "maintenance/maintenance_handoff.h"
#include "maintenance/maintenance_runtime.h"
#include "platform/process/child_process.h"
#include "support/installation.h"
#include "support/launched.h"
#include "system/installer_program.h"

namespace tavro::maintenance_test {

using std::chrono::milliseconds;
using testing::HasSubstr;
using Words = std::vector<std::string>;

/// A temporary folder of the system that nobody else uses.
struct OwnTemporary : TempFolder {
  OwnTemporary() { setenv("TMPDIR", path().c_str(), 1); }
  ~OwnTemporary() { unsetenv("TMPDIR"); }
};

TEST(MaintenanceRuntime, KnowsWhetherTheWindowIsUp) {
  const TempFolder folder;
  LauncherStore store(folder.path() / "data");
  const auto version = stage_version(store, folder.path(), "1.0.0");
  const auto prepare = [&](const std::string& role) {
    return MaintenanceRuntime::prepare(store, version, role, {}, {});
  };
  EXPECT_THAT(failure_of([&] { prepare("maintenance-gui"); }),
              HasSubstr("This Tavro version has no maintenance-gui helper; use the Tavro inst"));
  const OwnTemporary temporary;
  const auto closed = "maintenance_startup: The uninstall window did not open";
  using Row = std::tuple<const char*, int, const char*>;
  for (const auto& [steps, limit, outcome] :
       {Row{"ready", 60000, ""}, Row{"exit:0", 60000, closed}, Row{"wait", 200, closed}}) {
    setenv("TAVRO_TEST_LAUNCHER", steps, 1);
    const milliseconds wait(limit);
    EXPECT_FAILURE(prepare("maintenance")->launch_gui({}, wait), outcome);
    EXPECT_TRUE(fs::is_empty(temporary.path()));
  }
  setenv("TAVRO_TEST_LAUNCHER", "ready interrupt wait exit:4", 1);
  EXPECT_EQ(prepare("maintenance")->launch_console({})->wait([] { return true; }), 4);
}

TEST(MaintenanceHandoff, ShowsAWorkAndItsEndInOneView) {
  Installation at;
  at.install();
  const auto root = at.paths.root;
  for (int round = 0; round < 30; ++round) {
    std::atomic<int> wakeups{0};
    MaintenanceHandoff handoff;
    handoff.set_wakeup([&] { wakeups += handoff.view().at("phase") != "failed"; });
    handoff.create_shortcut(root, "space-game", {}, "");
    if (round % 3 == 0) handoff.cancel();
    if (round % 2 == 0) continue;
    handoff.remove_shortcuts(root);
    handoff.join();
    EXPECT_EQ(wakeups, 4);
    EXPECT_EQ(handoff.view().at("result"), json({{"removed", round == 1 ? 2 : 1}, {"changed", 0}}));
  }
  MaintenanceHandoff handoff;
  handoff.remove_shortcuts(root / "x");
  handoff.join();
  EXPECT_EQ(handoff.view().at("phase"), "failed");
  EXPECT_EQ(handoff.view().at("problem").at("code"), "not_installed");
}

/// An installed client of the real programs.
struct Removal : testing::Test {
  static SealedPackageOptions real_programs() {
    SealedPackageOptions options;
    options.bootstrap_image = program("tavro-bootstrap");
    options.launcher_image = program("example-launcher");
    options.launcher_gui_image = program("example-launcher-gui");
    options.maintenance_image = program("example-launcher-maintenance");
    options.maintenance_window_image = program("example-launcher-maintenance-gui");
    return options;
  }
  Removal() { at.install(), at.add_player_data(); }
  fs::path image(const std::string& name) const {
    return fs::directory_iterator(at.paths.launcher / "versions")->path() / "bin" / name;
  }

  Installation at{real_programs()};
  OwnTemporary temporary;
  fs::path root = at.paths.root, bootstrap = at.paths.bootstrap / "bin/tavro-bootstrap";
  const Words by_console = {"--data-dir", root, "self", "uninstall", "--remove-data"};
  const Words by_window = {"--data-dir", root, "--uninstall"};
  const Words uninstall = {"self", "uninstall"}, helpers = {"uninstall", "--data-dir", root};
};

TEST_F(Removal, IsRefusedToWhateverIsNotItsOwnProvedHelper) {
  const auto refuse = [&](const fs::path& program, const Words& words, const std::string& why,
                          const Launched::Environment& environment = {}) {
    Launched started(program, "", environment, words);
    EXPECT_THAT(started.rest(), HasSubstr(why));
    EXPECT_NE(started.status(), 0);
    EXPECT_TRUE(at.status().installed && fs::is_empty(temporary.path()));
  };
  const auto helper = image("launcher-maintenance"), gui = image("launcher-gui");
  const auto copied = at.folder.path() / "tavro-maintenance-1/helper";
  fs::create_directory(copied.parent_path());
  fs::copy_file(helper, copied);
  refuse(helper, {"uninstall", "--data-dir", at.folder.path()}, "A helper removes only");
  refuse(helper, {"status", "--data-dir", root}, "This helper takes uninstall");
  refuse(copied, helpers, "A temporary maintenance helper cannot start");
  refuse(image("launcher"), by_console, "Start native maintenance through the installed bootstrap",
         {{"TAVRO_LAUNCHER_HEALTH_NONCE", std::string(32, 'a')}});
  refuse(program("example-launcher"), by_console, "Installed maintenance needs a managed");
  refuse(program("example-launcher-gui"), by_window, "Start the installed Tavro GUI or use");
  refuse(gui, by_window, "set TMPDIR to a folder that exists", {{"TMPDIR", "/nowhere"}});
  for (const auto& damaged : {helper, image("launcher-maintenance-gui")})
    std::fstream(damaged).seekp(-6, std::ios::end) << "damage";  // it still runs
  refuse(bootstrap, uninstall, "The maintenance helper is damaged; run");
  refuse(gui, by_window, "The maintenance helper is damaged; run");
  refuse(helper, helpers, "differs from its verified launcher inventory");
  fs::remove(helper);
  refuse(bootstrap, uninstall, "launcher-maintenance");
}

TEST_F(Removal, HappensOnceAndLeavesNothing) {
  Launched console(bootstrap, "", {}, {"self", "uninstall", "--json"});
  EXPECT_EQ(json::parse(console.rest()).at("kept").size(), 2);
  EXPECT_TRUE(console.status() == 0 && at.keeps_player_data());
  at.install();
  EXPECT_EQ(Launched(image("launcher"), "", {}, by_console).rest(),
            "Removing…\nRemoved Tavro from " + path_utf8(root) + ".\n");
  at.install();
  Launched first(bootstrap, "", {}, uninstall), second(bootstrap, "", {}, uninstall);
  EXPECT_NE(first.status() == 0, second.status() == 0) << first.rest() << second.rest();
  EXPECT_FALSE(fs::exists(root) || !fs::is_empty(temporary.path()) ||
               !fs::is_empty(at.folder.path() / "share/applications"));
}

TEST_F(Removal, WaitsForAYesInTheHelpersWindow) {
  const auto input = at.folder.path() / "input";
  ASSERT_EQ(mkfifo(input.c_str(), 0600), 0);
  for (const std::string answer : {"no", "yes"}) {
    Launched launcher(image("launcher-gui"), "", {{"EXAMPLE_WINDOW_INPUT", input}}, by_window);
    ASSERT_EQ(launcher.status(), 0);  // its window closes while the helper asks
    std::ofstream(input) << answer << "\n";
    EXPECT_THAT(launcher.rest(), HasSubstr(answer == "no" ? "Nothing was" : "Removed Tavro"));
    EXPECT_EQ(at.status().installed, answer == "no");
  }
}

}  // namespace tavro::maintenance_test
