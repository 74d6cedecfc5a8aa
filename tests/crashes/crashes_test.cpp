#include <stdlib.h>

#include "crashes/crash_store.h"
#include "distributor/distributor.h"
#include "games/game_world.h"
#include "platform/files/durable_files.h"
#include "support/fail_nth_call.h"
#include "support/scripted_tls_server.h"

namespace tavro::games_test {

const std::string id(32, 'a');

GameReport crashed(const std::string& session = id, std::uint64_t ended = 2) {
  GameReport report;
  report.phase = GamePhase::ended;
  report.seen = {session, "build", 1, ended, GameOutcome::killed, 139, true};
  report.output = "said\n";
  return report;
}

struct Crashes : testing::Test {
  GameWorld world;
  const CrashStore store{world.data};

  std::string states() const {
    std::string text;
    for (const CrashEntry& entry : store.list())
      text += entry.id.substr(0, 1) + ' ' + std::string(crash_state_name(entry.state)) + ';';
    return text;
  }
};

TEST_F(Crashes, TellNothingOfThePlayer) {
  const std::string before = process_environment("HOME", 4096);
  ASSERT_EQ(::setenv("HOME", "/home/alice b", 1), 0);
  GameReport report = crashed();
  report.output = "ice b/cut\n/home/alice b/x /home/alice%20b/y ALICE B, alice bob\n" +
                  path_utf8(world.data) + "/games \xff\x1b";
  report.output.insert(9, kGameOutputBytes - report.output.size(), '.');
  report.session = {{"breadcrumbs",
                     {{{"category", "load"}, {"message", "/home/alice b/level"}, {"more", 1}},
                      {{"category", 1}}}}};
  store.keep("space", report);
  ASSERT_EQ(::setenv("HOME", before.c_str(), 1), 0);

  const std::string bytes = store.bytes(id);
  const CrashReport read = CrashReport::parse(json::parse(bytes));
  EXPECT_TRUE(read.output.starts_with("/cut")) << read.output.substr(0, 20);
  EXPECT_TRUE(read.output.ends_with("~/x ~/y <user>, alice bob\n<data>/games \xef\xbf\xbd\x1b"));
  EXPECT_EQ(read.breadcrumbs, (std::vector<CrashBreadcrumb>{{"load", "~/level"}}));
  for (const std::string& secret :
       {path_utf8(world.data), std::string("/home"), std::string("%20b")})
    EXPECT_EQ(bytes.find(secret), std::string::npos);
  EXPECT_EQ(read.system.platform, "linux-x86_64");
  EXPECT_EQ(read.text(), bytes);
}

TEST_F(Crashes, AreKeptOncePutAsideAndRemoved) {
  GameReport well = crashed();
  well.seen.outcome = GameOutcome::clean;
  EXPECT_FALSE(store.keep("space", well));
  well.seen = crashed().seen;
  well.seen.status = 128 + SIGTERM;
  EXPECT_FALSE(store.keep("space", well));
  EXPECT_EQ(store.keep("space", crashed()), id);
  EXPECT_FALSE(store.keep("space", crashed()));
  store.discard(id);
  EXPECT_EQ(states(), "a discarded;");
  store.restore(id);
  EXPECT_EQ(code_of([&] { store.remove(std::string(32, 'b')); }), "crash_not_found");
  EXPECT_EQ(code_of([&] { store.remove("../seen"); }), "crash_not_found");
  store.remove(id);
  // It is not made anew.
  EXPECT_FALSE(store.keep("space", crashed()));
  EXPECT_EQ(states(), "");

  const std::uint64_t now = distributor_clock();
  for (int i = 0; i < 40; ++i)
    store.keep("space", crashed(std::string(30, 'b') + std::to_string(10 + i), (now + i) * 1000));
  EXPECT_EQ(store.list().size(), kMaxCrashReports);
  EXPECT_EQ(store.list().back().id.substr(30), "18");
  store.discard(store.list().front().id);
  EXPECT_EQ(store.cleanup(now + kSettledReportLife + 60), 1U);
  EXPECT_EQ(store.cleanup(now + kCrashReportLife + 60), kMaxCrashReports - 1);
  EXPECT_EQ(tree_content(world.data / "crashes").size(), 2U);

  // A game that nobody watched to its end is found afterwards.
  world.publish(build_of("one", "echo said; exit 3"));
  world.install();
  world.library().launch("space", {}).wait({});
  ASSERT_EQ(store.collect(world.library()).size(), 1U);
  EXPECT_EQ(store.list().front().report->output, "said\n");
  EXPECT_TRUE(store.collect(world.library()).empty());
}

TEST_F(Crashes, AreSentWithConsentAndOnce) {
  ScriptedTlsServer server(world.trusted.folder.path());
  const CrashService service{server.origin() + "/crash", "2", "Consent.", true};
  const auto http = [](const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
  };
  const std::string wanted = http(
      "200 OK", R"({"schema_version":1,"state":"wanted","token":")" + std::string(64, '7') + "\"}");
  const std::string accepted = http("200 OK", R"({"schema_version":1,"state":"accepted"})");
  const auto send = [&](const std::string& version = "2",
                        AgeGiven age = AgeGiven::sixteen_or_older) {
    return code_of([&] { store.send(id, service, {version, age}, server.bundle(), {}); });
  };
  EXPECT_EQ(send(), "crash_not_found");
  store.keep("space", crashed());
  EXPECT_EQ(send("1"), "crash_consent");
  EXPECT_EQ(send("2", AgeGiven::no), "age_required");
  store.discard(id);
  EXPECT_EQ(send(), "crash_state");
  store.restore(id);
  EXPECT_EQ(server.requests().size(), 0U);
  EXPECT_EQ(states(), "a kept;");

  struct Row {
    std::vector<std::string> answers;
    std::string code, state;
  };
  const std::vector<Row> rows = {
      {{http("403 No", "")}, "crash_refused", "kept"},
      {{http("503 No", "")}, "http_status", "sending"},
      {{http("200 OK", R"({"schema_version":1})")}, "crash_answer", "sending"},
      {{http("200 OK", "<html>")}, "invalid_json", "sending"},
      {{wanted, http("413 No", "")}, "crash_refused", "kept"},
      {{wanted, wanted}, "crash_answer", "sending"},
      {{wanted, ""}, "network", "sending"},
      {{wanted, accepted}, "", "sent"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.answers.back());
    server.say_first({row.answers.begin(), row.answers.end()});
    EXPECT_EQ(send(), row.code);
    EXPECT_EQ(states(), "a " + row.state + ';');
  }
  const auto requests = server.requests();
  EXPECT_TRUE(requests.at(requests.size() - 2).starts_with("POST /crash/tickets "));
  EXPECT_TRUE(requests.back().starts_with("POST /crash/reports/" + id));
  EXPECT_TRUE(requests.back().ends_with("\r\n\r\n" + store.bytes(id)));
  EXPECT_EQ(store.find(id).consent_version, "2");
  EXPECT_EQ(send(), "");
  EXPECT_EQ(server.requests().size(), requests.size());

  // The service has it, and only the answer was lost.
  store.remove(id);
  store.keep("other", crashed());
  server.say_first({wanted, ""});
  EXPECT_EQ(send(), "network");
  server.say_first({accepted});
  EXPECT_EQ(send(), "");
  EXPECT_EQ(states(), "a sent;");
}

TEST_F(Crashes, AreWholeWheneverTheLauncherIsKilled) {
  const std::vector<std::pair<std::function<void()>, std::function<void()>>> all = {
      {[] {}, [&] { store.keep("space", crashed()); }},
      {[&] { store.keep("space", crashed()); }, [&] { store.discard(id); }},
      {[&] {
         store.keep("space", crashed());
         store.discard(id);
       },
       [&] {
         if (!store.list().empty()) store.remove(id);
       }}};
  for (const auto& [before, work] : all) {
    const int rounds = strike_each_call(
        Fault::kill, EIO,
        [&, &prepare = before] {
          fs::remove_all(world.data / "crashes");
          prepare();
        },
        work,
        [&, &again = work](const Stop&) {
          for (const CrashEntry& entry : store.list()) EXPECT_TRUE(entry.report) << entry.problem;
          again();
          // What a removal left goes with the next change.
          store.cleanup(0);
          const std::size_t reports = store.list().size();
          const std::string state = states();
          const std::size_t files = tree_content(world.data / "crashes").size();
          EXPECT_EQ(files, 2 + reports + (state == "a discarded;" ? 1U : 0U)) << state;
        });
    EXPECT_GE(rounds, 3);
  }
}

}  // namespace tavro::games_test
