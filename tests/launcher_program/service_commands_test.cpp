#include <fcntl.h>
#include <unistd.h>

#include "command_table.h"
#include "crashes/crash_store.h"
#include "distributor/distributor.h"
#include "games/game_world.h"
#include "platform/files/durable_files.h"
#include "secret_input.h"
#include "support/scripted_tls_server.h"

namespace tavro::program_test {

using namespace program;

/// A data folder that has asked its repository once, and cannot any more.
struct ServiceCommands : testing::Test {
  games_test::GameWorld world;
  ScriptedTlsServer server{world.trusted.folder.path()};
  const std::string id = std::string(32, 'a');

  ServiceCommands() {
    const Distributor distributor(world.data);
    Notices notices;
    notices.notices = {{"a", NoticeSeverity::warning, "Maintenance", "Soon.", 0, 253402300799}};
    Agreements agreements;
    agreements.agreements["eula"] = {"eula", "1",  "Terms", 4, digest("Kind", "sha256"),
                                     true,   true, {}};
    world.put("service/agreements/eula/1.txt", "Kind");
    tell(notices);
    tell(agreements);
    tell(ServiceStatus{ServiceState::outage, "Fire.", 5, 6});
    tell(CrashService{server.origin(), "2", "Consent.", false});
    distributor.text_of(agreements.at("eula"), &world.tuf());
    world.trusted.client.reset();
    const json record = {{"schema_version", 1},
                         {"origin", "https://localhost:1"},
                         {"ca_bundle", server.bundle().string()}};
    atomic_write(world.data / "repository.json", record.dump());
  }

  template <typename Document>
  void tell(const Document& document) {
    world.put(std::string(Document::kTarget), document.to_json().dump());
    world.trusted.repository.publish_update();
    Distributor(world.data).fetch<Document>(world.tuf());
  }
  Answer run(const std::vector<std::string>& words) const {
    Context context(world.data, "1", true, {});
    return run_command(context, words);
  }
  std::string code(const std::vector<std::string>& words) const {
    return code_of([&] { run(words); });
  }
};

TEST_F(ServiceCommands, TellWhatWasToldLast) {
  const Answer notices = run({"notices"});
  EXPECT_EQ(notices.document.at("notices").at(0).at("id"), "a");
  EXPECT_EQ(notices.document.at("cached"), true);
  EXPECT_NE(notices.text.find("warning: Maintenance"), std::string::npos);
  const Answer status = run({"service", "status", "--cached"});
  EXPECT_EQ(status.document.at("status").at("state"), "outage");
  EXPECT_EQ(status.document.at("stale"), true);
  EXPECT_NE(code({"service", "status"}), "");
}

TEST_F(ServiceCommands, TakeTheDecisionsOfThePlayer) {
  const auto agreed = [&] {
    return run({"agreements"}).document.at("agreements").at(0).at("agreed").get<bool>();
  };
  EXPECT_FALSE(agreed());
  EXPECT_EQ(run({"agreements", "show", "eula"}).document.at("text"), "Kind");
  EXPECT_EQ(code({"agreements", "show", "other"}), "agreement_not_found");
  EXPECT_EQ(code({"launch", "space"}), "agreement_required");
  const std::vector<std::string> agree = {"agreements", "agree", "eula", "--agreement-version"};
  const auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), agree.begin(), agree.end());
    return more;
  };
  EXPECT_EQ(code(with({"2", "--age-16-or-older"})), "agreement_version");
  EXPECT_EQ(code(with({"1"})), "age_required");
  EXPECT_EQ(code(with({"1", "--age-16-or-older"})), "");
  EXPECT_TRUE(agreed());
  EXPECT_EQ(code({"launch", "space"}), "not_installed");
  EXPECT_EQ(code({"agreements", "withdraw", "eula"}), "");
  EXPECT_FALSE(agreed());
}

TEST_F(ServiceCommands, ShowEveryByteOfACrashReportBeforeItIsSent) {
  GameReport report;
  report.phase = GamePhase::ended;
  report.seen = {id, "build", 1, 2, GameOutcome::killed, 139, true};
  CrashStore(world.data).keep("space", report);
  EXPECT_EQ(run({"crashes", "list"}).document.at("reports").at(0).at("report_id"), id);
  const Answer shown = run({"crashes", "show", id});
  EXPECT_EQ(shown.document.at("content"), CrashStore(world.data).bytes(id));
  EXPECT_NE(shown.text.find("tavro crashes send " + id + " --consent-version 2"),
            std::string::npos);
  EXPECT_EQ(code({"crashes", "discard", id}), "");
  EXPECT_TRUE(run({"crashes", "list"}).document.at("reports").empty());
  EXPECT_EQ(run({"crashes", "list", "--all"}).document.at("reports").size(), 1U);
  EXPECT_EQ(code({"crashes", "restore", id}), "");
  EXPECT_EQ(code({"crashes", "send", id, "--consent-version", "1"}), "crash_consent");
  server.say("HTTP/1.1 200 OK\r\n\r\n{\"schema_version\":1,\"state\":\"accepted\"}");
  EXPECT_EQ(
      run({"crashes", "send", id, "--consent-version", "2"}).document.at("report").at("state"),
      "sent");
  EXPECT_EQ(code({"crashes", "delete", id, "--confirm-report", "b"}), "confirmation_required");
  EXPECT_EQ(code({"crashes", "delete", id, "--confirm-report", id}), "");
  EXPECT_EQ(code({"crashes", "show", id}), "crash_not_found");
  EXPECT_EQ(run({"crashes", "cleanup"}).document.at("removed"), 0);
}

TEST(SecretInput, IsOneBoundedLine) {
  const UniqueFd before(::dup(STDIN_FILENO));
  const auto read = [&](const std::string& typed) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(::write(ends[1], typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    return std::string(SecretInput(4, {}).text());
  };
  EXPECT_EQ(read("code\nmore"), "code");
  EXPECT_EQ(read("end"), "end");
  EXPECT_EQ(code_of([&] { read("codes\n"); }), "usage");
  EXPECT_EQ(code_of([&] { SecretInput(4, [] { return true; }); }), "cancelled");
  ::dup2(before.get(), STDIN_FILENO);
}

}  // namespace tavro::program_test
