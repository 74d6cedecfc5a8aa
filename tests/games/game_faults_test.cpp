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
       [](GameWorld& world) { return !fs::exists(world.paths().record); }}};
  return all;
}

struct CutOff : testing::TestWithParam<std::size_t> {
  GameWorld world;
  CutOff() {
    world.publish(build_of("one"), "old");
    world.publish(build_of("two"));
    world.tuf().refresh();
  }

  void sweep(Fault fault, int error) {
    const Operation& operation = operations()[GetParam()];
    SCOPED_TRACE(operation.name);
    const int rounds = strike_each_call(
        fault, error,
        [&] {
          world.clear();
          operation.before(world);
          world.trusted.client.reset();
        },
        [&] { operation.work(world); },
        [&](const Stop& stop) {
          world.trusted.client.reset();
          const std::string failure = failure_of([&] { operation.work(world); });
          EXPECT_EQ(failure, "") << stop.call;
          EXPECT_TRUE(failure.empty() && operation.done(world));
          EXPECT_THAT(world.unexplained(), testing::IsEmpty());
          EXPECT_TRUE(world.saves_stand());
        });
    EXPECT_GE(rounds, 5);
  }
};

TEST_P(CutOff, IsCompletedByTheNextCallAfterAFailure) { sweep(Fault::fail, ENOSPC); }
TEST_P(CutOff, IsCompletedByTheNextCallAfterAKill) { sweep(Fault::kill, EIO); }

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
