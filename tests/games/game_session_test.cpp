#include "games/game_session.h"

#include <sys/stat.h>

#include <csignal>
#include <iterator>
#include <thread>

#include "games/game_world.h"
#include "platform/files/durable_files.h"
#include "platform/host/system_calls.h"

namespace tavro::games_test {

struct GameSessions : testing::Test {
  GameWorld world;
  const GameLibrary library = world.library();

  GameSessions() { world.save_something(); }

  void install(Build build) {
    world.publish(build);
    world.install();
  }
  GameReport play(const std::vector<std::string>& arguments = {}) {
    GameSession session = library.launch("space", arguments);
    return session.wait({});
  }
  /// The example is the program of the build.
  void install_example(bool sdk = true) {
    Build build = build_of("example");
    build.files[0].content =
        read_file(fs::read_symlink("/proc/self/exe").parent_path() / "example-game", 1U << 24);
    build.sdk = sdk;
    install(build);
  }
};

TEST_F(GameSessions, EndAsTheGameDoes) {
  struct Row {
    std::string script;
    GameOutcome outcome;
    int status;
    bool sdk = false;
  };
  const std::vector<Row> rows = {{"exit 0", GameOutcome::clean, 0},
                                 {"exit 3", GameOutcome::exited, 3},
                                 {"exit 200", GameOutcome::exited, 200},
                                 {"kill -9 $$", GameOutcome::killed, 137},
                                 {"exit 0", GameOutcome::never_ready, 0, true},
                                 {"kill -9 $$", GameOutcome::never_ready, 137, true}};
  int number = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.script);
    Build build = build_of("b" + std::to_string(++number), "echo said; " + row.script);
    build.sdk = row.sdk;
    install(build);
    const GameReport report = play();
    EXPECT_EQ(report.seen.outcome, row.outcome);
    EXPECT_EQ(report.seen.status, row.status);
    EXPECT_EQ(report.output, "said\n");
    EXPECT_EQ(library.status("space").last_start, report.seen);
    EXPECT_EQ(library.last_output("space"), "said\n");
  }
  library.set_channel("space", "stable");
  EXPECT_EQ(world.record().last_start->outcome, GameOutcome::never_ready);
}

TEST_F(GameSessions, GiveTheGameItsPlacesAndNothingElse) {
  install(build_of("one", R"(pwd; echo "$1"; ls /proc/self/fd | wc -l
echo "$TAVRO_GAME_ID $TAVRO_GAME_BUILD"; echo "$TAVRO_GAME_SAVES"; cat "$TAVRO_GAME_SAVES/slot1"
cut -d' ' -f5 /proc/$$/stat | grep -cx $$)"));
  const std::string saves = world.paths().saves.string();
  // Of the four descriptors one is the folder that the listing reads.
  EXPECT_EQ(
      play({"an argument"}).output,
      world.active_folder().string() + "\nan argument\n4\nspace one\n" + saves + "\nprogress1\n");
}

TEST_F(GameSessions, AreToldByTheGameItself) {
  install_example();
  GameReport report = play({"7"});
  EXPECT_EQ(report.seen.outcome, GameOutcome::clean) << report.session_problem;
  EXPECT_TRUE(report.seen.ready_seen);
  EXPECT_EQ(report.session.at("state"), "clean_exit");
  EXPECT_EQ(report.session.at("breadcrumbs").at(0).at("message"), "guessed 50");
  EXPECT_TRUE(fs::exists(world.paths().saves / "last.txt"));
  report = play({"7", "crash"});
  EXPECT_EQ(report.seen.outcome, GameOutcome::killed);
  EXPECT_EQ(report.seen.status, 128 + SIGABRT);
  EXPECT_EQ(report.session.at("state"), "ready");
}

TEST_F(GameSessions, BelieveOnlyTheirOwnGame) {
  Build build = build_of("liar", R"(printf '{"schema_version":1,"session_id":"%s","nonce":"x",
"game_id":"space","build_id":"liar","pid":%d,"sequence":1,"ready_seen":true,"state":"clean_exit",
"breadcrumbs":[],"exit_code":0}' $TAVRO_GAME_SESSION_ID $$ > $TAVRO_GAME_SESSION)");
  build.sdk = true;
  install(build);
  const GameReport report = play();
  EXPECT_EQ(report.seen.outcome, GameOutcome::never_ready);
  EXPECT_NE(report.session_problem, "");
}

TEST_F(GameSessions, KeepTheEndOfALongOutput) {
  install(build_of("one",
                   "i=0; while [ $i -lt 40 ]; do i=$((i+1)); head -c 100000 /dev/zero | "
                   "tr '\\0' x; done; echo end"));
  GameSession session = library.launch("space", {});
  const GameReport& report = session.wait({});
  EXPECT_EQ(report.output.size(), kGameOutputBytes);
  EXPECT_TRUE(report.output.ends_with("xend\n"));
  EXPECT_EQ(fs::file_size(world.paths().sessions / session.id() / "output.log"), kGameOutputBytes);
}

TEST_F(GameSessions, HoldTheirBuildWhileTheyLast) {
  install(build_of("one", "read line < \"$TAVRO_GAME_STATE/pipe\""));
  fs::create_directories(world.paths().state);
  ASSERT_EQ(::mkfifo((world.paths().state / "pipe").c_str(), 0600), 0);
  GameSession session = library.launch("space", {});
  EXPECT_TRUE(library.status("space").running);
  for (const auto& attempt :
       std::vector<std::function<void()>>{[&] { library.repair("space", world.tuf(), {}); },
                                          [&] { library.remove("space", PlayerData::removed); }})
    EXPECT_EQ(code_of(attempt), "game_running");
  world.publish(build_of("two"));
  const GameChange change = library.update("space", world.tuf(), {});
  EXPECT_TRUE(change.staged && !change.active);
  EXPECT_EQ(code_of([&] { library.finish_update("space", {}); }), "game_running");
  EXPECT_EQ(session.observe().phase, GamePhase::starting);
  EXPECT_EQ(world.record().active->build_id, "one");
  EXPECT_TRUE(session.terminate(std::chrono::milliseconds(500)));
  EXPECT_EQ(session.observe().seen.outcome, GameOutcome::killed);
  EXPECT_TRUE(library.finish_update("space", {}).active);
  EXPECT_TRUE(world.stands("two"));
  for (int i = 0; i < 10; ++i) play();
  library.set_channel("space", "stable");
  const auto sessions = fs::directory_iterator(world.paths().sessions);
  EXPECT_EQ(std::distance(begin(sessions), end(sessions)), 8);
}

TEST_F(GameSessions, AreProtectedByTheGameWhenItsLauncherEnds) {
  install(build_of("one", "while [ ! -e \"$TAVRO_GAME_STATE/enough\" ]; do sleep 0.02; done"));
  library.launch("space", {});
  EXPECT_TRUE(library.status("space").running);
  EXPECT_EQ(code_of([&] { library.remove("space", PlayerData::removed); }), "game_running");
  write_bytes(world.paths().state / "enough", "");
  while (library.status("space").running) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(library.status("space").last_start->outcome, GameOutcome::unknown);
  library.remove("space", PlayerData::kept);
  EXPECT_FALSE(fs::exists(world.paths().record));
}

TEST_F(GameSessions, DoNotGatherOrKeepFromAnything) {
  install(build_of("one"));
  private_directory(world.paths().sessions);
  for (int i = 0; i < 4200; ++i) fs::create_directory(world.paths().sessions / random_id());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(play().seen.outcome, GameOutcome::clean);
  const auto sessions = fs::directory_iterator(world.paths().sessions);
  EXPECT_LE(std::distance(begin(sessions), end(sessions)), 9);
  EXPECT_EQ(library.status("space").last_start->outcome, GameOutcome::clean);
}

TEST_F(GameSessions, TellHowTheyEndedOnAFullDisk) {
  install(build_of("one", "echo said"));
  SystemCalls calls = system_calls();
  static bool full = false;
  calls.write = [](int descriptor, const void* bytes, std::size_t size) -> ssize_t {
    errno = ENOSPC;
    return full ? -1 : ::write(descriptor, bytes, size);
  };
  GameSession session = library.launch("space", {});
  const SystemCallScope scope(calls);
  full = true;
  EXPECT_NE(code_of([&] { session.wait({}); }), "");
  full = false;
  EXPECT_EQ(session.wait({}).output, "said\n");
  EXPECT_EQ(library.last_output("space"), "said\n");
  EXPECT_EQ(library.status("space").last_start->outcome, GameOutcome::clean);
}

TEST_F(GameSessions, StartOnlyWhatIsTheGames) {
  install(build_of("one"));
  write_bytes(world.active_folder() / "bin/run", "#!/bin/sh\n# xxx\nexit 0\n");
  EXPECT_EQ(code_of([&] { play(); }), "content_mismatch");
  EXPECT_FALSE(fs::exists(world.paths().sessions));
  library.repair("space", world.tuf(), {});
  EXPECT_EQ(play().seen.outcome, GameOutcome::clean);
}

}  // namespace tavro::games_test
