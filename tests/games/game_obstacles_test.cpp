#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "games/game_library.h"
#include "games/game_world.h"
#include "platform/files/durable_files.h"
#include "platform/host/system_calls.h"

namespace tavro::games_test {

struct GameObstacles : testing::Test {
  GameWorld world;
  const GameLibrary library = world.library();

  GameObstacles() {
    world.save_something();
    world.publish(build_of("one"));
    world.install();
  }
  fs::path manifest_file() const {
    return world.paths().manifest(world.record().active->manifest_ref);
  }
  /// Sends this much of a large build, and cuts the line.
  void fetch_a_part() {
    Build large = build_of("large");
    std::string noise;
    for (int i = 0; i < 10000; ++i) noise += random_id();
    large.files.push_back({"data/noise", noise});
    world.publish(large);
    world.server.sends = 100000;
    EXPECT_EQ(code_of([&] { library.update("space", world.tuf(), {}); }), "network");
    world.server.sends = -1;
  }
};

/// What games leave in their folders.
void leave_odd_files(const fs::path& folder, const fs::path& elsewhere) {
  private_directory(folder);
  write_bytes(folder / "12:30.sav", "");
  fs::create_directory_symlink(elsewhere, folder / "link");
  ASSERT_EQ(::mkfifo((folder / "what?").c_str(), 0600), 0);
}

TEST_F(GameObstacles, DoNotKeepFromARemoval) {
  struct Row {
    std::string name;
    std::function<void(const fs::path& folder)> damage;
    bool kept, unproved;
  };
  const fs::path other = world.trusted.folder.path() / "other";
  private_directory(other);
  write_bytes(other / "mine", "mine");
  const std::vector<Row> rows = {
      {"files are a link and a folder",
       [&](const fs::path& folder) {
         fs::remove(folder / "data/level");
         fs::create_symlink(other / "mine", folder / "data/level");
         fs::remove(folder / "data/music");
         fs::create_directory(folder / "data/music");
       },
       true, false},
      {"a folder is a file",
       [](const fs::path& folder) {
         fs::remove_all(folder / "data");
         write_bytes(folder / "data", "mine");
       },
       true, false},
      {"damaged manifest", [&](const fs::path&) { write_bytes(manifest_file(), "{}"); }, true,
       true},
      {"no manifest", [&](const fs::path&) { fs::remove(manifest_file()); }, true, true},
      {"sessions",
       [&](const fs::path&) { leave_odd_files(world.paths().sessions / random_id(), other); },
       false, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const fs::path folder = world.active_folder();
    row.damage(folder);
    const GameRemoval removal = library.remove("space", PlayerData::kept);
    EXPECT_EQ(!removal.kept.empty(), row.kept);
    EXPECT_EQ(!removal.unproved.empty(), row.unproved);
    EXPECT_EQ(fs::exists(folder / "bin/run"), row.unproved);
    EXPECT_EQ(read_file(other / "mine", 9), "mine");
    fs::remove_all(world.paths().versions);
    EXPECT_THAT(world.unexplained(), testing::IsEmpty());
    world.install();
    EXPECT_TRUE(world.stands("one"));
  }
  EXPECT_TRUE(world.saves_stand());
}

TEST_F(GameObstacles, LeaveNoSavesThatWereGivenUp) {
  const GamePaths paths = world.paths();
  const fs::path aside = paths.player.parent_path() / (".removed-space." + random_id());
  const fs::path player = world.data / "player";
  fs::rename(paths.player, player);
  fs::create_directory_symlink(player, paths.player);
  EXPECT_NE(
      failure_of([&] { library.remove("space", PlayerData::removed); }).find(paths.player.string()),
      std::string::npos);
  EXPECT_TRUE(world.stands("one"));
  fs::remove(paths.player);
  fs::rename(player, paths.player);
  leave_odd_files(paths.saves, world.data);
  leave_odd_files(aside, world.data);
  library.set_channel("space", "stable");
  EXPECT_FALSE(fs::exists(aside));
  // A removal that was cut off goes on as it was wished.
  json record = world.record().to_json();
  record["removing"] = record["removing_player_data"] = true;
  atomic_write(paths.record, record.dump());
  EXPECT_TRUE(world.install().active);
  EXPECT_FALSE(fs::exists(paths.player));
  record.erase("removing_player_data");
  EXPECT_EQ(GameRecord::parse(record, "space").removing, PlayerData::kept);
}

TEST_F(GameObstacles, AreRepaired) {
  const std::vector<std::pair<std::string, std::function<void()>>> damages = {
      {"no manifest", [&] { fs::remove(manifest_file()); }},
      {"damaged manifest", [&] { write_bytes(manifest_file(), "{}"); }},
      {"no folder", [&] { fs::remove_all(world.active_folder()); }}};
  for (const auto& [name, damage] : damages) {
    SCOPED_TRACE(name);
    damage();
    library.repair("space", world.tuf(), {});
    EXPECT_TRUE(world.stands("one"));
  }
  fs::remove(manifest_file());
  world.install();
  EXPECT_TRUE(world.stands("one"));
  // The manifest of a stage was lost: it goes as the folder that was recorded.
  world.publish(build_of("two"));
  library.preload("space", world.tuf(), {});
  fs::remove(world.paths().manifest(world.record().preload->manifest_ref));
  library.discard("space");
  EXPECT_THAT(world.unexplained(), testing::IsEmpty());
  // What the system cannot open now is not damaged.
  SystemCalls calls = system_calls();
  calls.open = [](const char* path, int flags, mode_t mode) {
    errno = EMFILE;
    return std::string_view(path).ends_with("level") ? -1 : ::open(path, flags, mode);
  };
  const SystemCallScope scope(calls);
  EXPECT_EQ(code_of([&] { library.verify("space", {}); }), "file_read");
}

TEST_F(GameObstacles, CostNothingThatWasFetched) {
  fetch_a_part();
  const std::size_t left = library.plan("space", world.tuf(), {}).fetch_bytes;
  EXPECT_GT(left, 0U);
  EXPECT_LT(left, world.manifests.at("large").at("archive").at("length"));
  library.repair("space", world.tuf(), {});
  fs::remove(world.paths().download_record);
  const std::size_t sent = world.server.sent;
  library.update("space", world.tuf(), {});
  EXPECT_EQ(world.server.sent - sent, left);
  EXPECT_THAT(world.unexplained(), testing::IsEmpty());
}

TEST_F(GameObstacles, AreNotActivated) {
  world.publish(build_of("two"));
  library.preload("space", world.tuf(), {});
  world.put_manifest(world.manifests["one"]);
  library.update("space", world.tuf(), {});
  EXPECT_FALSE(library.finish_update("space", {}).changed);
  EXPECT_TRUE(world.stands("one"));
  const GameRequest request{.progress = [](auto phase, auto, auto) { return phase != "looking"; }};
  EXPECT_EQ(code_of([&] { library.update("space", world.tuf(), request); }), "cancelled");
  EXPECT_THAT(world.unexplained(), testing::IsEmpty());
}

TEST_F(GameObstacles, LeaveNoManifestOfRetiredBuilds) {
  world.publish(build_of("two"));
  library.update("space", world.tuf(), {});
  {
    GameWriter writer(world.paths());
    GameVersion old = *std::exchange(writer.record.previous, std::nullopt);
    writer.record.retired.push_back(old);
    old.version = "again";
    writer.record.retired.push_back(old);
    writer.save();
  }
  fs::remove_all(world.paths().leases);
  EXPECT_FALSE(library.status("space").running);
  EXPECT_FALSE(fs::exists(world.paths().leases));
  library.set_channel("space", "stable");
  EXPECT_THAT(world.unexplained(), testing::IsEmpty());
}

}  // namespace tavro::games_test
