// The bootstrap from its command line to a running launcher, with real processes on both sides.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <iostream>
#include <set>

#include "app/launcher_bootstrap.h"
#include "app/launcher_startup.h"
#include "app/start_marker.h"
#include "domain/input.h"
#include "support/failure.h"
#include "support/installation.h"
#include "support/launched.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"
#include "system/installer_program.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

const std::string usual = "who exit:7", candidate = "TAVRO_TEST_LAUNCHER_2_0_0";
const std::string healthy = "attach interrupt health exit:3";

std::string unusable(const std::string& why) { return "tavro: launcher version unusable (" + why; }

struct Row {
  std::function<void()> prepare = [] {};
  testing::Matcher<std::string> said;
  Words words = {};
  int status = 7;
  std::string steps = usual;
};

/// A data folder with an installed bootstrap and two versions, the first one active.
class Bootstrap : public testing::Test {
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
  json failed = {{"reference", second}, {"problem", "startup_failed"}};
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
  for (const auto& [interface, steps, status] : {std::tuple("cli", healthy.c_str(), 3),
                                                 {"gui", "attach health exit:3", 3},
                                                 {"cli", "attach interrupt health leave", 0}}) {
    select(first, second);
    EXPECT_EQ(run(interface, steps, 10000).status(), status) << steps;
    EXPECT_EQ(state("active"), second);
    EXPECT_EQ(state("rollback"), first);
  }
  const std::vector<std::tuple<std::string, std::string, std::string, int>> failures = {
      {"cli", "attach leave", "launcher_startup_failed", 10000},
      {"gui", "exit:0", "launcher_startup_failed", 10000},
      {"cli", "attach health wait", "launcher_health", 10000},  // no way to ask it to stop
      {"cli", "attach interrupt wrong-pid wait", "launcher_health", 10000},
      {"cli", "attach interrupt long-health wait", "size_limit", 10000},
      {"gui", "attach drop-lease health ignore-term wait", "launcher_lease", 10000},
      {"cli", "attach wait", "launcher_startup_timeout", 200},
      {"gui", "ignore-term wait", "launcher_startup_timeout", 200}};
  for (const auto& [interface, steps, code, limit_ms] : failures)
    for (const json& active : {first, json()}) {
      if (active.is_null() && limit_ms < 10000) continue;  // a first launcher has 30 seconds
      SCOPED_TRACE(interface + " " + steps);
      select(active, second);
      auto bootstrap = run(interface, steps, limit_ms);
      EXPECT_THAT(bootstrap.rest(), HasSubstr(active.is_null() ? code + ": " : "1.0.0\n"));
      EXPECT_EQ(bootstrap.status(), active.is_null() ? 1 : 7);
      EXPECT_EQ(state("active"), active);
      EXPECT_EQ(state("failed_candidate"), failed);
    }
  write_bytes(file(second), std::string(1000, 'x'));
  select(first, second);
  EXPECT_EQ(run("cli", "say:started", 10000).rest(), "1.0.0\n");
}

// Each row breaks one thing more.
TEST_F(Bootstrap, GoesFromVersionToVersionUntilOneStarts) {
  const auto third = stage_version(store, folder.path(), "3.0.0");
  const auto name = second.at("manifest_sha256").get<std::string>() + ".json";
  const std::string nothing = "No installed Tavro version could be started\n";
  const auto damaged =
      unusable("launcher_damaged): Tavro's files are damaged. Reinstall Tavro to repair them.\n");
  const auto changed = unusable("content_mismatch): Stored launcher manifest changed\n");
  const auto crowd = [&] {
    for (int i = 3; i < 65; ++i) put_file(root / "launcher/versions" / std::to_string(i), "");
  };
  expect({{[&] { select(first, {}, second); }, "1.0.0\n"},
          {[&] { write_bytes(file(first, "bin/launcher"), "cut"); }, damaged + "2.0.0\n"},
          {[&] { select(first, {}, first); }, damaged + "3.0.0\n"},
          {[&] { select(first, {}, second), put_file(root / "launcher/manifests" / name, "{}"); },
           damaged + changed + "3.0.0\n"},
          {[&] { put_file(root / "launcher/installation.json", "{"); }, "3.0.0\n"},
          {crowd, nothing, {}, 1},
          {[] {}, nothing, {"--gui", "--launch", "space-game", "windowed"}, 1},
          {[] {},
           HasSubstr("tavro: starting space-game directly; repair Tavro by running its installer"),
           {"--gui", "--launch", "space-game"},
           1}});
}

TEST_F(Bootstrap, PassesOverAVersionWhoseWindowFailedTwice) {
  const auto mark = [&](int age, const json& attempts) {
    return [&, age, attempts] {
      const json marker = {{"manifest_sha256", first.at("manifest_sha256")},
                           {"started_at", std::time(nullptr) - age},
                           {"attempts", attempts}};
      put_file(start_marker(root), marker.dump());
    };
  };
  const auto counted = [&](const json& attempts, int age, const json& next) {
    return [&, attempts, set = mark(age, next)] {
      EXPECT_EQ(json::parse(read_file(start_marker(root), 4096)).at("attempts"), attempts);
      set();
    };
  };
  const auto damage = [&] { write_bytes(file(first), std::string(1000, 'x')), mark(31, 1)(); };
  const Words window = {"--gui"};
  select(first, {}, second);
  expect(
      {{mark(10, 2), "1.0.0\n", window},
       {counted(1, 31, 1), "1.0.0\n", window},
       {counted(2, 31, "two"), "1.0.0\n", window},
       {counted(1, 31, 2), "1.0.0\n"},  // a console neither reads nor writes it
       {counted(2, 31, 2),
        unusable("launcher_damaged): This Tavro version failed to start twice\n2.0.0\n"), window},
       {damage, AllOf(HasSubstr("(content_mismatch)"), EndsWith("2.0.0\n")), window}});
}

TEST_F(Bootstrap, AnswersOrPassesOnWhatItIsGiven) {
  const auto row = [](Words words, testing::Matcher<std::string> said, int status = 0,
                      std::string steps = "attach arguments") {
    return Row{[] {}, std::move(said), std::move(words), status, std::move(steps)};
  };
  const auto passed = [&](Words words) {
    words.insert(words.begin(), {"--data-dir", root});
    return "attached\n" + json(words).dump() + "\n";
  };
  const json uninstall = {"uninstall", "--data-dir", root.string(), "--remove-data", "--json"};
  // Of this a launcher must see nothing.
  setenv(launcher_nonce_environment, "0", 1);
  const auto misplaced = HasSubstr("Set the data directory on the native bootstrap, before");
  expect(
      {row({}, passed({})), row({"list", "--json"}, passed({"--json", "list"})),
       row({"--data-dir", root, "list"}, passed({"list"})),
       row({"--gui", "--", "--data-dir", "x"}, passed({"--", "--data-dir", "x"})),
       row({"list"}, Not(HasSubstr(root.string())), 0, "descriptors"),
       row({"--json", "--help"}, HasSubstr(R"("kind":"help","schema_version":1)")),
       row({"self", "uninstall", "--json", "--remove-data"}, "attached\n" + uninstall.dump() + "\n",
           0, "helper:maintenance arguments"),
       row({"self", "uninstall", "--all"}, "Use self uninstall [--remove-data]\n", 2),
       row({"self", "shortcut", "create", "x"}, HasSubstr("Use self shortcut create"), 2),
       row({"list", "--data-dir", root}, misplaced, 2),
       row({"--gui", "x", "--data-dir", root}, misplaced, 2),
       row({"--data-dir"}, "--data-dir needs a nonempty path\n", 2),
       row({"--data-dir", folder.path()}, HasSubstr("This bootstrap serves " + root.string()), 2),
       row(Words(129, "list"), "CLI invocation exceeds 128 arguments\n", 2)});
  unsetenv(launcher_nonce_environment);
}

TEST_F(Bootstrap, PassesCtrlCOnToACandidate) {
  // Whether it has proved itself before it is asked, and what its end then means.
  for (const auto& [steps, said, ending] :
       {std::tuple("attach interrupt health say:up wait say:asked exit:4", "asked\r\n", 4),
        {"attach interrupt say:up wait say:asked exit:4", "asked\r\n1.0.0\r\n", 7}}) {
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
    EXPECT_THAT(text, EndsWith(said));
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
  expect({{[] {}, HasSubstr("close it before restarting\nTry: self status\n"), {}, 1}});
  EXPECT_EQ(state("attempt"), open);
  const auto ack = read_file(store.startup_ack_path(open), launcher_proof_bytes);
  EXPECT_EQ(kill(json::parse(ack).at("pid"), SIGKILL), 0);
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
  expect({{[] {}, "1.0.0\n"}});
  EXPECT_EQ(state("failed_candidate").at("problem"), "startup_interrupted");

  std::set<std::string> found;
  for (int call = 1, status = 0; status != 3 && !HasFailure(); ++call) {
    SCOPED_TRACE(call);
    select(first, second);
    auto struck = start({}, usual,
                        {{candidate, healthy},
                         {"LD_PRELOAD", program("libsignal_at_call.so")},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                         {"TAVRO_TEST_SIGNAL", std::to_string(SIGKILL)},
                         {"TAVRO_TEST_CALL", std::to_string(call)}});
    struck.rest();
    status = struck.status();
    while (waitpid(-1, nullptr, 0) > 0) continue;  // the launcher, if it was started
    const bool proved = state("active") == second;
    // The next start proves what still waits, and runs what works.
    const int next = start({}, usual, {{candidate, healthy}}).status();
    const bool lost = !state("failed_candidate").is_null();
    EXPECT_EQ(state("active"), lost ? first : second);
    EXPECT_EQ(next, lost ? 7 : 3);
    EXPECT_TRUE(state("attempt").is_null() && state("candidate").is_null());
    found.insert(lost ? "lost" : proved ? "proved" : "waiting");
  }
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  EXPECT_EQ(found, (std::set<std::string>{"waiting", "lost", "proved"}));
}

}  // namespace
}  // namespace tavro
