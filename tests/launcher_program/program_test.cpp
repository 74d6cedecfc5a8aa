// The real program on a real data folder, with games from a real server.

#include <unistd.h>

#include <csignal>
#include <thread>

#include "launcher_program/program_world.h"
#include "support/installation.h"

namespace tavro::program_test {

using namespace std::chrono_literals;

constexpr std::size_t slow_bytes = 3 << 20;

/// Each line of the table: a status, what is said, and the command, with "|" between them.
void expect_said(Client& client, const std::string& table) {
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream cells(line);
    std::string status, words, command;
    std::getline(std::getline(std::getline(cells, status, '|'), words, '|'), command, '|');
    const Ending text = client.ask(command);
    EXPECT_EQ(std::to_string(text.status), status) << command << text.output << text.errors;
    EXPECT_THAT(text.output + text.errors, testing::HasSubstr(words)) << command;
  }
}

class Program : public testing::Test {
 protected:
  Program() { static_cast<void>(published()); }

  /// Once. A failure is one of the test, where that of a suite would only skip it.
  static bool published() {
    static const bool done = publish();
    return done;
  }
  static bool publish() {
    GameRepository& from = repository();
    from.publish("space", "1.0", "echo hello; exit 0");
    from.publish("star", "1.0", "exit 3");
    from.publish("star", "2.0", "echo $$ >\"$TAVRO_GAME_STATE/pid\"; exec sleep 300", 1000, "beta");
    from.publish("slow", "1.0", "exit 0", slow_bytes);
    return true;
  }

  void wait_for(const std::function<bool()>& condition) {
    for (int i = 0; i < 600 && !condition(); ++i) std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(condition());
  }

  json first_operation() { return client.answer("operations list").at("operations").at(0); }

  Client client;
};

TEST_F(Program, TakesAGameThroughItsLife) {
  expect_said(client, R"(0|No game is installed|list
0|星の王子さま|available
3|Try: tavro available, and tavro install space|status space
0|The game is not installed|manage space
3|is not installed|uninstall space --confirm-game space
3|does not offer|preload space --build 9.9
0|space is installed: build 1.0|install space
0|space is up to date: build 1.0|install space
0|Every file of the game is as it should be|verify space
0|it ended well|launch space
0|it ended well|observe space
3|not the last one|observe space --session other
3|There is no previous build|rollback space
3|no such folder|open star saves
0|The volume has|locations space
0|up to date|updates check
0|up to date|updates show space
0||updates check --background
9|ended with status 3|install star --launch
0|follows the channel beta|channel set star beta
0|star   2.0    7|updates check
0|is put off|updates defer star --build 2.0
0||updates check --background
0|Build 2.0 of star is ready|preload star
0|star  2.0    1.0|preloads
3|is not preloaded|preloads discard star --build 1.0
0|is gone|preloads discard star --build 2.0
0|star is updated: build 2.0|update star
0|Build 1.0 is in use again|rollback star
0|saves are kept|uninstall star --confirm-game star
3|There is no operation|operations show 00000000000000000000000000000000
2|Unknown command|dance
2|valid identifiers|status ../../etc)");
  expect_said(client,
              "0|keep_previous|settings get\n2|There is no such|settings set a 1\n"
              "2|The setting takes 1 to 8|settings set concurrent_operations 9\n"
              "0|download_limit is 5 from|settings set download_limit 5\n");
}

TEST_F(Program, AnswersProgramsInOneLine) {
  client.answer("install space");
  const json game = client.answer("status space").at("game");
  EXPECT_EQ(game.at("build_id"), "1.0");
  EXPECT_EQ(game.at("state"), "installed");
  EXPECT_EQ(client.answer("launch space").at("session").at("outcome"), "clean");
  EXPECT_EQ(client.answer("list").at("games").size(), 1);
  EXPECT_GE(client.answer("available").at("games").size(), 4);
  const json problem = client.answer("repair star", 3).at("problem");
  EXPECT_EQ(problem.at("code"), "not_installed");
  EXPECT_EQ(problem.at("next").at(0), "tavro available, and tavro install star");
  const json operation = first_operation();
  EXPECT_EQ(operation.at("command"), "repair star");
  EXPECT_EQ(operation.at("state"), "failed");
  EXPECT_EQ(client.answer("operations wait " + operation.at("id").get<std::string>(), 3)
                .at("operation")
                .at("problem")
                .at("code"),
            "not_installed");
}

TEST_F(Program, MendsAGameThatWasDamaged) {
  client.answer("install space");
  const std::string place = client.answer("locations space").at("locations").at(0).at("path");
  fs::remove(fs::path(place) / "noise");
  put_file(fs::path(place) / "mine", "");
  const json found = client.answer("verify space", 8);
  EXPECT_EQ(found.at("missing"), json({"noise"}));
  EXPECT_EQ(found.at("foreign"), json({"mine"}));
  EXPECT_EQ(client.answer("repair space").at("replaced"), 1);
  EXPECT_EQ(client.answer("verify space").at("sound"), true);
}

TEST_F(Program, LetsOthersSeeAndStopAnOperation) {
  client.answer("settings set download_limit 200000");
  Started install = client.start("install slow");
  const auto downloads = [&] {
    const json operations = client.answer("operations list").at("operations");
    return !operations.empty() && operations.at(0).at("phase") == "downloading" &&
           operations.at(0).at("done") > 0;
  };
  wait_for(downloads);
  const std::string id = first_operation().at("id");
  EXPECT_EQ(client.answer("install slow", 5).at("problem").at("code"), "busy");
  EXPECT_EQ(client.answer("operations retry " + id, 5).at("problem").at("code"), "busy");
  Started waiting = client.start("operations wait " + id);
  EXPECT_EQ(client.answer("operations cancel " + id).at("asked"), true);
  EXPECT_EQ(install.wait().status, 4);
  EXPECT_EQ(waiting.wait().status, 4);
  client.answer("settings set download_limit 0");
  const json retried = client.answer("operations retry " + id);
  EXPECT_EQ(retried.at("build_id"), "1.0");
  EXPECT_EQ(first_operation().at("retry_of"), id);
}

TEST_F(Program, TellsAKilledOperationFromItsLock) {
  client.answer("settings set download_limit 200000");
  client.answer("settings set concurrent_operations 1");
  Started install = client.start("install slow");
  wait_for([&] {
    return fs::exists(client.data / "operations") &&
           !client.answer("operations list").at("operations").empty() &&
           first_operation().at("done") > 0;
  });
  EXPECT_EQ(client.answer("verify space", 5).at("problem").at("code"), "too_many_operations");
  install.send(SIGKILL);
  install.wait();
  const json operation = first_operation();
  EXPECT_EQ(operation.at("state"), "interrupted");
  EXPECT_EQ(client.answer("operations cancel " + operation.at("id").get<std::string>()).at("asked"),
            false);
  client.answer("settings set download_limit 0");
  client.answer("operations retry " + operation.at("id").get<std::string>());
}

TEST_F(Program, UpdatesAfterTheGameHasEnded) {
  client.answer("install star");
  client.answer("channel set star beta");
  client.answer("update star");
  Started game = client.start("launch star --play-current");
  wait_for([&] { return client.answer("status star").at("game").at("running") == true; });
  EXPECT_EQ(client.answer("rollback star", 5).at("problem").at("code"), "game_running");
  repository().publish("star", "3.0", "exit 0", 1000, "beta");
  EXPECT_EQ(client.answer("update star --after-exit --build 9", 3).at("problem").at("code"),
            "build_not_offered");
  const std::string session =
      client.answer("status star").at("game").at("last_start").at("session_id");
  Started update = client.start("update star --after-exit --build 3.0 --session " + session);
  wait_for(
      [&] { return client.answer("status star").at("game").at("preloaded_build_id") == "3.0"; });
  kill(std::stoi(read_file(client.data / "userdata/star/state/pid", 99)), SIGKILL);
  EXPECT_EQ(game.wait().status, 9);
  EXPECT_EQ(update.wait().status, 0);
  EXPECT_EQ(client.answer("status star").at("game").at("build_id"), "3.0");
}

TEST_F(Program, StaysQuietWhereNothingCanBeAsked) {
  client.answer("install space");
  put_file(client.data / "repository.json",
           R"({"schema_version":1,"origin":"https://localhost:1","ca_bundle":""})");
  EXPECT_EQ(client.answer("updates check", 6).at("problem").at("code"), "network");
  const Ending quiet = client.ask("updates check --background");
  EXPECT_EQ(quiet.output + quiet.errors, "");
  EXPECT_EQ(quiet.status, 0);
  client.answer("settings set background_checks false");
  EXPECT_EQ(client.answer("updates check --background").at("reason"), "turned_off");
}

TEST_F(Program, KeepsARepositoryUntilAnotherOneIsProved) {
  const std::string before = read_file(client.data / "repository.json", 9999);
  const GameRepository other;
  const std::string origin = " --origin " + other.server->origin();
  const std::string bundle = " --ca-bundle " + other.server->bundle().string();
  const std::string strange = " --root " + repository().root.string();
  client.answer("repository configure" + origin + bundle + strange, 8);
  client.answer("repository configure" + origin + strange, 6);
  client.answer("repository configure --root x" + origin, 7);
  EXPECT_EQ(read_file(client.data / "repository.json", 9999), before);
  client.answer("available");
  client.answer("repository configure" + origin + bundle + " --root " + other.root.string());
  client.answer("available", 3);
}

TEST_F(Program, SaysWhatItCannotWrite) {
  const std::string line = "'" + program("tavro").string() + "' --data-dir '" +
                           client.data.string() + "' list >/dev/full 2>'" +
                           (client.folder.path() / "err").string() + "'";
  EXPECT_EQ(WEXITSTATUS(std::system(line.c_str())), 7);
  const std::string closed = line.substr(0, line.find(" >")) + " >&- 2>&-";
  EXPECT_EQ(WEXITSTATUS(std::system(closed.c_str())), 7);
  put_file(client.data / "settings.json", "{");
  EXPECT_EQ(client.answer("settings get", 1).at("problem").at("code"), "invalid_state");
  if (geteuid() == 0) return;
  fs::permissions(client.data, fs::perms(0500));
  client.answer("install space", 7);
  fs::permissions(client.data, fs::perms(0700));
}

}  // namespace tavro::program_test
