// The bootstrap from its command line to a running launcher, with real processes on both sides.

#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <set>

#include "launcher/launcher_startup.h"
#include "launcher/start_marker.h"
#include "start/launcher_bootstrap.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/launched.h"
#include "system/installer_program.h"

namespace tavro::bootstrap_test {

using namespace testing;
using Words = std::vector<std::string>;

const std::string usual = "who exit:7", candidate = "TAVRO_TEST_LAUNCHER_2_0_0";
const std::string healthy = "attach interrupt health exit:3";

std::string unusable(const std::string& why) { return "tavro: launcher version unusable (" + why; }

struct Row {
  std::function<void()> prepare = [] {};
  Matcher<std::string> said;
  Words words = {};
  int status = 7;
  std::string steps = usual;
};

/// A data folder with an installed bootstrap and two versions, the first one active.
class Bootstrap : public Test {
 protected:
  Bootstrap() {
    fs::create_directories(image.parent_path());
    fs::copy_file(program("tavro-bootstrap"), image);
    select(first);
  }
  /// Settles the record, with a version waiting or without.
  void select(const json& active, const json& waiting = {}, const json& rollback = {}) {
    auto record = store.load();
    record.update({{"active", active}, {"candidate", waiting}, {"rollback", rollback}});
    record.update({{"attempt", {}}, {"failed_candidate", {}}});
    store.save(record);
  }
  /// What the record says of a start that was given up.
  static json note(const json& version, const std::string& code, const std::string& reason) {
    return {
        {"reference", version}, {"problem", "startup_failed"}, {"code", code}, {"reason", reason}};
  }
  Launched start(const Words& words = {}, const std::string& steps = usual,
                 const Launched::Environment& environment = {}) const {
    return {image, steps, environment, words};
  }
  void expect(const std::vector<Row>& rows) {
    for (const auto& row : rows) {
      row.prepare();
      auto bootstrap = start(row.words, row.steps);
      const auto said = bootstrap.rest();
      EXPECT_THAT(said, row.said);
      EXPECT_EQ(bootstrap.status(), row.status) << said;
    }
  }
  json state(const char* key) const { return store.load().at(key); }
  fs::path file(const json& version, const char* name = "share/part-0/file-0.bin") const {
    return store.payload(version) / name;
  }

  TempFolder folder;
  fs::path root = folder.path() / "data", image = root / "native/bootstrap/bin/tavro-bootstrap";
  LauncherStore store{root};
  json first = stage_version(store, folder.path(), "1.0.0");
  json second = stage_version(store, folder.path(), "2.0.0");
  std::string repair = "tavro-install repair --data-dir " + root.string() + "\n";
};

TEST_F(Bootstrap, KeepsTheWorkingVersionUnlessTheCandidateProvesItself) {
  const auto run = [&](const std::string& interface, const std::string& steps, int limit_ms) {
    return Launched([&] {
      setenv(candidate.c_str(), steps.c_str(), 1);
      setenv("TAVRO_TEST_LAUNCHER", usual.c_str(), 1);
      int status = 1;
      std::cout << failure_of([&] {
        status =
            run_launcher_bootstrap(root, interface, {}, std::chrono::milliseconds(limit_ms), {});
      }) << std::flush;
      return status;
    });
  };
  // The status of a launcher that proves itself; else the failure and what the record says of it.
  const std::string early = "Launcher candidate exited before initialization",
                    late = "Launcher candidate did not confirm initialization",
                    stopped = "; it was running still and was stopped";
  const std::vector<std::tuple<std::string, std::string, std::string, std::string>> rows = {
      {"cli", healthy, "3", ""},
      {"gui", "attach health exit:3", "3", ""},
      {"cli", "attach interrupt health leave", "0", ""},
      {"cli", "attach leave", "launcher_startup_failed", early + "; it ended with status 0"},
      {"gui", "exit:137", "launcher_startup_failed",
       early + "; it ended with status 137, as by signal 9"},
      {"cli", "attach interrupt long-health wait", "size_limit",
       "File exceeds read limit" + stopped},
      {"cli", "attach health wait", "launcher_health",  // no way to ask it to stop
       "Launcher health does not match its build, process, mode, interrupt contract and attempt" +
           stopped},
      {"gui", "attach drop-lease health ignore-term wait", "launcher_lease",
       "The running launcher did not retain native startup ownership" + stopped},
      {"cli", "attach wait", "launcher_startup_timeout", late + stopped},
      {"gui", "ignore-term wait", "launcher_startup_timeout", late + stopped}};
  for (const auto& [interface, steps, failure, reason] : rows) {
    SCOPED_TRACE(interface + " " + steps);
    const bool proved = reason.empty(), slow = failure == "launcher_startup_timeout";
    const json failed = proved ? json() : note(second, failure, reason);
    select(first, second);
    const int status = run(interface, steps, slow ? 200 : 10000).status();
    EXPECT_EQ(status, proved ? std::stoi(failure) : 7);
    EXPECT_EQ(state("active"), proved ? second : first);
    EXPECT_EQ(state(proved ? "rollback" : "failed_candidate"), proved ? first : failed);
    // A first launcher has 30 seconds, which nobody waits for here.
    if (proved || slow) continue;
    select({}, second);
    EXPECT_THAT(run(interface, steps, 10000).rest(),
                AllOf(HasSubstr(failure + "): " + reason), HasSubstr(failure + ": ")));
    EXPECT_EQ(state("failed_candidate"), failed);
  }
  put_file(file(second), std::string(1000, 'x'));
  select(first, second);
  EXPECT_THAT(run("cli", "say:started", 10000).rest(),
              AllOf(HasSubstr("(content_mismatch)"), EndsWith("\n1.0.0\n")));
}

TEST_F(Bootstrap, StartsTheWorkingVersionWhenTheDiskKeepsTheOtherFromItsTrial) {
  const json attempt = {{"nonce", std::string(32, 'a')}, {"reference", second}};
  for (const auto& [call, error, code] :
       {std::tuple("write", ENOSPC, "(insufficient_space)"), {"open", EROFS, "(lock_failed)"}})
    for (const bool open : {false, true}) {
      select(first, second);
      auto record = store.load();
      if (open) record.update({{"candidate", {}}, {"attempt", attempt}});
      store.save(record);
      Launched started([&, &call = call, &error = error] {
        setenv("TAVRO_TEST_LAUNCHER", usual.c_str(), 1);
        const FailNthCall full(1, error, Fault::fail, call);
        return run_launcher_bootstrap(root, "cli", {}, std::chrono::milliseconds(10000), {});
      });
      EXPECT_THAT(started.rest(), AllOf(HasSubstr(code), HasSubstr("; the working one starts\n"),
                                        EndsWith("\n1.0.0\n")));
      EXPECT_EQ(state(open ? "attempt" : "candidate"), open ? attempt : second);
    }
  // No child takes this line, and the version is not to blame for it.
  select(first, second);
  const Words longer = {"settings", "set", std::string(4097, 'k'), "1"};
  expect({{[] {}, HasSubstr("Launch argument is invalid or too long\n"), longer, 1}});
  EXPECT_EQ(state("candidate"), second);
}

TEST_F(Bootstrap, ProvesTheTreeOfAVersionThatFailedWhenNothingElseIsLeft) {
  select({}, second);
  const std::string before = "launcher build 2.0.0 did not start before (startup_failed)";
  expect({{[] {}, HasSubstr("exited before initialization"), {}, 1, "exit:0"},
          {[] {}, AllOf(HasSubstr(before), EndsWith("\n2.0.0\n"))},
          {[&] { put_file(file(second), std::string(1000, 'x')); },
           AllOf(HasSubstr("(content_mismatch)"), HasSubstr(repair)),
           {},
           1}});
}

// Each row breaks one thing more.
TEST_F(Bootstrap, GoesFromVersionToVersionUntilOneStarts) {
  const auto third = stage_version(store, folder.path(), "3.0.0");
  const auto name = second.at("manifest_sha256").get<std::string>() + ".json";
  const auto nothing =
      "tavro: to mend it, run: " + repair + "No installed Tavro version could be started\n";
  const auto damaged =
      unusable("launcher_damaged): Tavro's files are damaged. Reinstall Tavro to repair them.\n");
  const auto changed = unusable("content_mismatch): Stored launcher manifest changed\n");
  const auto crowd = [&] {
    for (int i = 3; i < 65; ++i) put_file(root / "launcher/versions" / std::to_string(i), "");
  };
  expect({{[&] { select(first, {}, second); }, "1.0.0\n"},
          {[&] { put_file(file(first, "bin/launcher"), "cut"); }, damaged + "2.0.0\n"},
          {[&] { select(first, {}, first); }, damaged + "3.0.0\n"},
          {[&] { select(first, {}, second), put_file(root / "launcher/manifests" / name, "{}"); },
           damaged + changed + "3.0.0\n"},
          {[&] { put_file(root / "launcher/installation.json", "{"); }, "3.0.0\n"},
          {crowd, nothing, {}, 1},
          {[] {}, nothing, {"--gui", "--launch", "space-game", "windowed"}, 1},
          {[] {},
           HasSubstr("tavro: starting space-game directly; repair Tavro by running its installer"),
           {"--gui", "--launch", "space-game"},
           1},
          {[&] {
             const fs::path game = image.parent_path() / "game";
             put_file(game, "#!/bin/sh\necho alone; exit 5\n");
             fs::permissions(game, fs::perms::owner_all);
             put_file(image.parent_path() / "tavro-platform.json",
                      R"({"schema_version": 1, "game_id": "space-game", "name": "S", "build": "1",
                          "executable": "game", "crash_service": "https://crash.example"})");
           },
           HasSubstr("alone\n"),
           {"--gui", "--launch", "space-game"},
           5}});
}

TEST_F(Bootstrap, PassesOverAVersionWhoseWindowFailedTwice) {
  const auto older = [&] {
    auto marker = json::parse(read_file(start_marker(root), 4096));
    marker["started_at"] = marker.at("started_at").get<std::int64_t>() - 31;
    put_file(start_marker(root), marker.dump());
  };
  const auto twice =
      unusable("launcher_damaged): This Tavro version failed to start twice\nTry: ") + repair;
  const Words window = {"--gui"};
  select(first, {}, second);
  expect({{[] {}, "1.0.0\n", window},
          {older, "1.0.0\n", window},
          {[] {}, "1.0.0\n", window},  // a start of just now is forgotten with its count
          {older, "1.0.0\n", window},
          {older, "1.0.0\n"},  // a console neither reads nor writes the count
          {older, twice + "2.0.0\n", window},
          {[&] { put_file(file(first), std::string(1000, 'x')); }, "1.0.0\n", window},
          {older, AllOf(HasSubstr("(content_mismatch)"), EndsWith("2.0.0\n")), window},
          {[&] { put_file(start_marker(root), "{"); }, "1.0.0\n", window}});
}

TEST_F(Bootstrap, AnswersOrPassesOnWhatItIsGiven) {
  const auto passed = [&](Words words) {
    words.insert(words.begin(), {"--data-dir", root});
    return "attached\n" + json(words).dump() + "\n";
  };
  const auto uninstall =
      "attached\n" + json{"uninstall", "--data-dir", root.string(), "--json"}.dump() + "\n";
  // Of this a launcher must see nothing.
  setenv(launcher_nonce_environment, "0", 1);
  const auto misplaced = HasSubstr("Set the data directory on the native bootstrap, before");
  const auto none = [] {};
  const std::string steps = "attach arguments";
  const Words nobody = {"self", "shortcut", "create", "x"};
  expect(
      {{none, passed({}), {}, 0, steps},
       {none, passed({"--json", "list"}), {"list", "--json"}, 0, steps},
       {none, passed({"list"}), {"--data-dir", root, "list"}, 0, steps},
       {none, passed({"--", "--data-dir"}), {"--gui", "--", "--data-dir"}, 0, steps},
       {none, Not(HasSubstr(root.string())), {}, 0, "descriptors"},
       {none, HasSubstr(R"("kind":"help","schema_version":1)"), {"--json", "--help"}, 0},
       {none, uninstall, {"self", "uninstall", "--json"}, 0, "helper:maintenance arguments"},
       {none, HasSubstr("Use self shortcut create"), nobody, 2},
       {none, misplaced, {"list", "--data-dir", root}, 2},
       {none, misplaced, {"--gui", "x", "--data-dir", root}, 2},
       {none, "--data-dir needs a nonempty path\n", {"--data-dir"}, 2},
       {none, "Duplicate global option: --data-dir\n", {"--data-dir", root, "--data-dir", root}, 2},
       {none, HasSubstr(R"({"problem":{"code":"usage")"), {"nothing", "--json"}, 2},
       {none, HasSubstr("This bootstrap serves "), {"--data-dir", folder.path()}, 2}});
  unsetenv(launcher_nonce_environment);
}

TEST_F(Bootstrap, NeedsNeitherAHomeNorAWorkingDirectoryNorAFolderToAnswer) {
  const auto nowhere = folder.path() / "nowhere", gone = folder.path() / "gone";
  const auto bare = program("tavro-bootstrap");
  fs::create_directory(gone);
  const auto run = [&](const fs::path& program, const Words& words) {
    Launched started([&] {
      EXPECT_EQ(chdir(gone.c_str()), 0);
      rmdir(gone.c_str());
      for (const auto* home : {"HOME", "XDG_DATA_HOME"}) unsetenv(home);
      setenv("TAVRO_TEST_LAUNCHER", usual.c_str(), 1);
      return Launched::become(program, {}, words);
    });
    return started.rest();
  };
  EXPECT_THAT(run(bare, {"--help"}), HasSubstr("Usage: tavro"));
  fs::create_directory(gone);
  EXPECT_EQ(run(image, {}), "1.0.0\n");
  fs::create_directory(gone);
  EXPECT_EQ(run(bare, {"--data-dir", nowhere, "self", "uninstall"}),
            "Tavro is not installed in " + nowhere.string() + "\n");
  EXPECT_FALSE(fs::exists(nowhere));
}

TEST_F(Bootstrap, PassesCtrlCOnToACandidate) {
  // Whether it has proved itself before it is asked, and what its end then means.
  for (const auto& [steps, said, ending] :
       {std::tuple("attach interrupt health say:up wait say:asked exit:4", "asked\r\n", 4),
        {"attach interrupt say:up wait say:asked exit:4", "\r\n1.0.0\r\n", 7}}) {
    select(first, second);
    int terminal = -1, status = 0;
    const pid_t bootstrap = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (bootstrap == 0) {
      setenv("TAVRO_TEST_LAUNCHER", usual.c_str(), 1);
      setenv(candidate.c_str(), steps, 1);
      _exit(execl(image.c_str(), image.c_str(), nullptr));
    }
    std::string text;
    for (char next = 0; read(terminal, &next, 1) == 1;) {
      text += next;
      EXPECT_TRUE(!text.ends_with("up\r\n") || write(terminal, "\3", 1) == 1);
    }
    waitpid(bootstrap, &status, 0);
    close(terminal);
    EXPECT_THAT(text, AllOf(HasSubstr("asked\r\n"), EndsWith(said)));
    EXPECT_EQ(WEXITSTATUS(status), ending);
    EXPECT_EQ(state("active"), ending == 4 ? second : first);
  }
}

TEST_F(Bootstrap, SettlesWhatAKilledOneLeft) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // a launcher that loses its bootstrap becomes ours
  select(first, second);
  auto killed = start({}, usual, {{candidate, "attach say:up wait"}});
  killed.line();
  EXPECT_EQ(killed.line(), "up");
  killed.end();
  const auto open = state("attempt");
  const auto ack = read_file(store.startup_ack_path(open), launcher_proof_bytes);
  const pid_t orphan = json::parse(ack).at("pid");
  const auto alive = "2.0.0 has not ended (process " + std::to_string(orphan) + ")";
  expect({{[] {}, HasSubstr("close it before restarting\nTry: self status\n"), {}, 1},
          {[] {}, HasSubstr(alive), {"self", "status"}, 0}});
  EXPECT_EQ(state("attempt"), open);
  EXPECT_EQ(kill(orphan, SIGKILL), 0);
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
  expect({{[] {}, "1.0.0\n"}});
  EXPECT_EQ(state("failed_candidate").at("problem"), "startup_interrupted");

  std::set<std::string> found;
  const auto die_at = [&](int call, const std::string& steps) {
    SCOPED_TRACE(steps + std::to_string(call));
    select(first, second);
    auto struck = start({}, usual,
                        {{candidate, steps},
                         {"LD_PRELOAD", program("libsignal_at_call.so")},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                         {"TAVRO_TEST_SIGNAL", std::to_string(SIGKILL)},
                         {"TAVRO_TEST_CALL", std::to_string(call)}});
    struck.rest();
    const int status = struck.status();
    while (waitpid(-1, nullptr, 0) > 0) continue;  // the launcher, if it was started
    const bool proved = state("active") == second;
    // The next start proves what still waits, and runs what works.
    const int next = start({}, usual, {{candidate, healthy}}).status();
    const json lost = state("failed_candidate");
    EXPECT_EQ(state("active"), lost.is_null() ? second : first);
    EXPECT_EQ(next, lost.is_null() ? 3 : 7);
    EXPECT_TRUE(state("attempt").is_null() && state("candidate").is_null());
    found.insert(!lost.is_null() ? lost.at("problem") : proved ? "proved" : "waiting");
    return status == 128 + SIGKILL && !HasFailure();
  };
  for (const auto& steps : {healthy, std::string("exit:0")})
    for (int call = 1; die_at(call, steps); ++call) continue;
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  EXPECT_EQ(found,
            (std::set<std::string>{"waiting", "startup_interrupted", "startup_failed", "proved"}));
}

}  // namespace tavro::bootstrap_test
