#include <gtest/gtest.h>

#include "games/game_library.h"
#include "games/game_world.h"
#include "support/fail_nth_call.h"

namespace tavro::games_test {

struct Operation {
  std::string name;
  /// What stands before, how it is done, and what stands after.
  std::function<void(GameWorld&)> before;
  std::function<void(GameWorld&)> work;
  std::function<bool(GameWorld&)> done;
};

const std::vector<Operation>& operations() {
  static const auto installed = [](GameWorld& world) { world.install(); };
  static const auto both = [](GameWorld& world) {
    world.library().install(world.game, world.tuf(), {.channel = "old"});
    world.library().update(world.game, world.tuf(), {.channel = "stable"});
  };
  static const std::vector<Operation> all = {
      {"install", [](GameWorld&) {}, installed,
       [](GameWorld& world) { return world.stands("two"); }},
      {"update",
       [](GameWorld& world) {
         world.library().install(world.game, world.tuf(), {.channel = "old"});
       },
       [](GameWorld& world) {
         world.library().update(world.game, world.tuf(), {.channel = "stable"});
       },
       [](GameWorld& world) {
         return world.stands("two") && world.record().previous->build_id == "one";
       }},
      {"repair",
       [](GameWorld& world) {
         world.install();
         write_bytes(world.active_folder() / "data/level", "bad");
         fs::remove(world.active_folder() / "bin/run");
       },
       [](GameWorld& world) { world.library().repair(world.game, world.tuf(), {}); },
       [](GameWorld& world) { return world.stands("two"); }},
      {"roll back", both,
       [](GameWorld& world) {
         // A call that was cut off after its one step has been carried out.
         if (world.record().active->build_id != "one") world.library().roll_back(world.game, {});
       },
       [](GameWorld& world) { return world.stands("one"); }},
      {"preload", [](GameWorld&) {},
       [](GameWorld& world) { world.library().preload(world.game, world.tuf(), {}); },
       [](GameWorld& world) { return world.record().preload->build_id == "two"; }},
      {"activate", [](GameWorld& world) { world.library().preload(world.game, world.tuf(), {}); },
       [](GameWorld& world) { world.library().finish_update(world.game, {}); },
       [](GameWorld& world) { return world.stands("two"); }},
      {"discard", [](GameWorld& world) { world.library().preload(world.game, world.tuf(), {}); },
       [](GameWorld& world) { world.library().discard(world.game); },
       [](GameWorld& world) { return !fs::exists(world.paths().record); }},
      {"remove", both,
       [](GameWorld& world) {
         if (fs::exists(world.paths().record)) world.library().remove(world.game, PlayerData::kept);
       },
       [](GameWorld& world) { return !fs::exists(world.paths().record); }},
      {"remove with saves", installed,
       [](GameWorld& world) {
         if (fs::exists(world.paths().record))
           world.library().remove(world.game, PlayerData::removed);
       },
       [](GameWorld& world) { return !fs::exists(world.paths().record); }},
      {"another channel", installed,
       [](GameWorld& world) { world.library().set_channel(world.game, "old"); },
       [](GameWorld& world) { return world.stands("two") && world.record().channel == "old"; }},
      {"defer", installed, [](GameWorld& world) { world.library().defer(world.game, "three", 0); },
       [](GameWorld& world) { return world.record().deferral->build_id == "three"; }}};
  return all;
}

enum class Next { same_call, removal };

struct CutOff : testing::TestWithParam<std::size_t> {
  GameWorld world;
  const Operation& operation = operations()[GetParam()];
  const bool changes_build = operation.name == "repair" || operation.name.starts_with("remove");
  const bool gives_saves_up = operation.name == "remove with saves";
  bool was_installed = false;

  CutOff() {
    world.publish(build_of("one"), "old");
    world.publish(build_of("two"));
    world.tuf().refresh();
  }

  void prepare() {
    world.clear();
    operation.before(world);
    was_installed = world.library().status(world.game).installed;
    world.trusted.client.reset();
  }

  /// Whatever was struck, the game can be started all the same: the old build or the new one.
  void expect_whole() {
    const GameStatus seen = world.library().status(world.game);
    EXPECT_EQ(seen.problem, "");
    if (changes_build) return;
    EXPECT_TRUE(seen.installed || !was_installed);
    EXPECT_TRUE(!seen.installed || world.library().verify(world.game, {}).is_sound());
  }

  void complete(Next next) {
    if (next == Next::same_call) {
      EXPECT_EQ(failure_of([&] { operation.work(world); }), "");
      EXPECT_TRUE(operation.done(world));
      EXPECT_TRUE(gives_saves_up ? !fs::exists(world.paths().player) : world.saves_stand());
      return;
    }
    const auto code = code_of([&] { world.library().remove(world.game, PlayerData::kept); });
    EXPECT_TRUE(code.empty() || code == "not_installed") << code;
    EXPECT_FALSE(fs::exists(world.paths().record));
    EXPECT_TRUE(gives_saves_up || world.saves_stand());
    // What was cut off of the catalogue, which is all games', goes with the next look at it.
    world.library().available(world.tuf());
  }

  void sweep(Fault fault, int error, Next next) {
    SCOPED_TRACE(operation.name);
    const int rounds = strike_each_call(
        fault, error, [&] { prepare(); }, [&] { operation.work(world); },
        [&](const Stop& stop) {
          SCOPED_TRACE(stop.call);
          world.trusted.client.reset();
          expect_whole();
          complete(next);
          EXPECT_THAT(world.unexplained(), testing::IsEmpty());
        });
    EXPECT_GE(rounds, 5);
  }
};

TEST_P(CutOff, IsCompletedByTheNextCallAfterAFailure) {
  sweep(Fault::fail, GetParam() % 2 == 0 ? ENOSPC : EIO, Next::same_call);
}
TEST_P(CutOff, IsCompletedByTheNextCallAfterAKill) { sweep(Fault::kill, EIO, Next::same_call); }
TEST_P(CutOff, CanBeTakenAwayAfterAKill) { sweep(Fault::kill, EIO, Next::removal); }

INSTANTIATE_TEST_SUITE_P(EachOperation, CutOff,
                         testing::Range(std::size_t{0}, operations().size()));

TEST(GameStorage, NeedsNoReservation) {
  GameWorld world;
  world.publish(build_of("one"));
  world.clear();
  SystemCalls calls = system_calls();
  calls.fallocate = [](int, int, off_t, off_t) {
    errno = EOPNOTSUPP;
    return -1;
  };
  const SystemCallScope scope(calls);
  world.install();
  EXPECT_TRUE(world.stands("one"));
}

}  // namespace tavro::games_test
