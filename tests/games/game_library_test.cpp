#include "games/game_library.h"

#include "games/game_world.h"
#include "platform/files/durable_files.h"
#include "start/direct_start.h"

namespace tavro::games_test {

struct Games : testing::Test {
  GameWorld world;
  const GameLibrary library = world.library();

  Games() {
    world.save_something();
    world.publish(build_of("one"));
  }
  void expect_clean() {
    EXPECT_THAT(world.unexplained(), testing::IsEmpty());
    EXPECT_TRUE(world.saves_stand());
  }
};

TEST_F(Games, ComesIsUpdatedRolledBackAndTakenAway) {
  EXPECT_EQ(library.available(world.tuf()), world.catalog);
  EXPECT_TRUE(world.install().active);
  EXPECT_TRUE(world.stands("one"));
  EXPECT_FALSE(world.install().changed);
  // The record is the one that starts go by when no launcher can run.
  EXPECT_EQ(locate_installed_game(world.data, "space").directory, world.active_folder());
  world.publish(build_of("two"));
  EXPECT_TRUE(library.check("space", world.tuf()).newer);
  EXPECT_EQ(library.update("space", world.tuf(), {}).build_id, "two");
  EXPECT_TRUE(world.stands("two"));
  EXPECT_TRUE(library.roll_back("space", {}).active);
  EXPECT_TRUE(world.stands("one"));
  const GameUpdate again = library.check("space", world.tuf());
  EXPECT_TRUE(again.newer && again.deferred);
  world.publish(build_of("three"));
  library.update("space", world.tuf(), {});
  EXPECT_EQ(library.status("space").display_name, "Space");
  EXPECT_EQ(library.list().size(), 1U);
  expect_clean();
  const std::string oldest = digest(world.manifests["two"].dump(), "sha256");
  EXPECT_EQ(library.update("space", world.tuf(), {.manifest_sha256 = oldest}).build_id, "two");
  expect_clean();
  EXPECT_THAT(library.remove("space", PlayerData::kept).kept, testing::IsEmpty());
  EXPECT_FALSE(library.status("space").installed);
  expect_clean();
  EXPECT_EQ(code_of([&] { library.remove("space", PlayerData::kept); }), "not_installed");
  library.remove("space", PlayerData::removed);
  EXPECT_FALSE(fs::exists(world.paths().player));
}

TEST_F(Games, StaysWithinItsPlan) {
  Build large = build_of("large");
  for (char name = 'a'; name <= 'f'; ++name)
    large.files.push_back({std::string("data/") + name, random_id() + std::string(100000, name)});
  world.publish(large);
  const GamePlan plan = library.plan("space", world.tuf(), {});
  EXPECT_FALSE(fs::exists(world.paths().folder));
  std::uintmax_t most = 0;
  GameRequest request;
  request.progress = [&](auto, auto, auto) {
    std::uintmax_t bytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(world.data))
      if (entry.is_regular_file()) bytes += entry.file_size();
    most = std::max(most, bytes);
    return true;
  };
  library.install("space", world.tuf(), request);
  EXPECT_GE(most, plan.installed_bytes);
  EXPECT_LE(most, plan.peak_bytes);
  EXPECT_EQ(plan.fetch_bytes, world.server.sent);
}

TEST_F(Games, GoesOnWithWhatWasFetched) {
  Build large = build_of("large");
  std::string noise;
  for (int i = 0; i < 10000; ++i) noise += random_id();
  large.files.push_back({"data/noise", noise});
  world.publish(large);
  const auto size = world.manifests["large"]["archive"]["length"].get<std::size_t>();
  world.server.sends = 100000;
  EXPECT_EQ(code_of([&] { world.install(); }), "network");
  EXPECT_TRUE(fs::is_empty(world.paths().staging));
  world.server.sends = -1;
  GameRequest cancelling;
  cancelling.progress = [](std::string_view phase, auto done, auto) {
    return phase != "unpacking" || done == 0;
  };
  EXPECT_EQ(code_of([&] { library.install("space", world.tuf(), cancelling); }), "cancelled");
  EXPECT_EQ(world.server.sent, size);
  EXPECT_EQ(library.plan("space", world.tuf(), {}).fetch_bytes, 0U);
  world.install();
  EXPECT_EQ(world.server.sent, size);
  EXPECT_TRUE(world.stands("large"));
  expect_clean();
}

TEST_F(Games, IsPreloadedAndActivatedWithoutTheNetwork) {
  EXPECT_TRUE(library.preload("space", world.tuf(), {}).staged);
  EXPECT_FALSE(library.status("space").installed);
  EXPECT_EQ(code_of([&] { library.launch("space", {}); }), "not_installed");
  expect_clean();
  library.discard("space");
  expect_clean();
  EXPECT_FALSE(library.status("space").record);
  library.preload("space", world.tuf(), {});
  world.trusted.client.reset();
  EXPECT_TRUE(library.finish_update("space", {}).active);
  EXPECT_TRUE(world.stands("one"));
  world.publish(build_of("two"));
  library.preload("space", world.tuf(), {});
  EXPECT_TRUE(world.stands("one"));
  write_bytes(world.paths().staged(world.record().preload->version) / "data/level", "changed");
  EXPECT_EQ(code_of([&] { library.finish_update("space", {}); }), "content_mismatch");
  library.update("space", world.tuf(), {});
  EXPECT_TRUE(world.stands("two"));
  EXPECT_FALSE(library.finish_update("space", {}).changed);
  expect_clean();
}

TEST_F(Games, MovesWithItsDataFolder) {
  using Step = std::function<void()>;
  const std::vector<std::pair<std::string, Step>> roads = {
      {"activated", [&] { library.finish_update("space", {}); }},
      {"given up", [&] { library.discard("space"); }},
      {"removed", [&] { library.remove("space", PlayerData::kept); }}};
  for (const bool ready : {true, false})
    for (const auto& [name, road] : roads) {
      SCOPED_TRACE(name);
      world.clear();
      library.preload("space", world.tuf(), {});
      json document = parse_json(read_file(world.paths().ready, 9999), 9999);
      document["versions_path"] = "/somewhere/else/versions";
      json& identity = document["staging_identity"];
      identity[0] = identity[0].get<std::uint64_t>() + 1;
      if (!ready) {
        document["kind"] = "tavro-install-preparation";
        for (const fs::path& path : {world.paths().ready, world.paths().record}) fs::remove(path);
      }
      const fs::path place = ready ? world.paths().ready : world.paths().preparation;
      atomic_write(place, document.dump());
      EXPECT_EQ(code_of(road), "");
      EXPECT_EQ(library.status("space").installed, ready && name == "activated");
      expect_clean();
    }
  // A copy is another tree, which is taken for ours where it is the same; else it is somebody's.
  for (const bool same : {true, false})
    for (const auto& [name, road] : roads) {
      SCOPED_TRACE(name);
      world.clear();
      library.preload("space", world.tuf(), {});
      const fs::path tree = world.paths().staged(world.record().preload->version);
      fs::copy(tree, world.data / "copy", fs::copy_options::recursive);
      fs::remove_all(tree);
      fs::rename(world.data / "copy", tree);
      if (!same) write_bytes(tree / "data/level", "mine");
      const std::string failure = failure_of(road);
      EXPECT_EQ(failure.find(tree.string()) != failure.npos, !same) << failure;
      if (!same) {
        fs::remove_all(tree);
        library.discard("space");
      }
      expect_clean();
    }
}

TEST_F(Games, KeepsWhatSomebodyPutIntoAStage) {
  library.preload("space", world.tuf(), {});
  const fs::path mine = world.paths().staged(world.record().preload->version) / "mine";
  write_bytes(mine, "mine");
  EXPECT_EQ(code_of([&] { library.discard("space"); }), "unexpected_file");
  EXPECT_EQ(code_of([&] { library.remove("space", PlayerData::removed); }), "unexpected_file");
  EXPECT_EQ(read_file(mine, 9), "mine");
  fs::remove(mine);
  library.discard("space");
  expect_clean();
}

TEST_F(Games, RepairsOnlyWhatIsDamaged) {
  world.install();
  const fs::path folder = world.active_folder();
  const auto untouched = fs::last_write_time(folder / "data/music");
  fs::permissions(folder / "bin/run", fs::perms(0600));
  fs::remove(folder / "data/level");
  fs::create_symlink("/etc/passwd", folder / "data/level");
  write_bytes(folder / "mod", "mine");
  const GameDifferences found = library.verify("space", {});
  EXPECT_THAT(found.damaged, testing::ElementsAre("bin/run"));
  EXPECT_THAT(found.missing, testing::ElementsAre("data/level"));
  EXPECT_THAT(found.foreign, testing::UnorderedElementsAre("data/level", "mod"));
  const GameRepair repair = library.repair("space", world.tuf(), {});
  EXPECT_EQ(repair.replaced, 2U);
  ASSERT_EQ(repair.set_aside.size(), 1U);
  EXPECT_TRUE(fs::is_symlink(folder / repair.set_aside[0]));
  EXPECT_EQ(fs::last_write_time(folder / "data/music"), untouched);
  const GameDifferences after = library.verify("space", {});
  EXPECT_TRUE(after.is_sound());
  EXPECT_EQ(after.foreign_count, 2U);
  fs::rename(folder / "mod", world.data / "mod");
  fs::remove_all(folder);
  EXPECT_EQ(library.repair("space", world.tuf(), {}).replaced, 3U);
  EXPECT_TRUE(library.verify("space", {}).is_sound());
  fs::rename(world.data / "mod", folder / "mod");
  // A folder of the build that became a link is no way to somewhere else.
  fs::rename(folder / "data", world.data / "elsewhere");
  fs::create_directory_symlink(world.data / "elsewhere", folder / "data");
  EXPECT_EQ(library.repair("space", world.tuf(), {}).replaced, 2U);
  EXPECT_TRUE(library.verify("space", {}).is_sound());
  EXPECT_TRUE(fs::is_directory(fs::symlink_status(folder / "data")));
  const auto kept = library.remove("space", PlayerData::kept).kept;
  EXPECT_THAT(kept, testing::ElementsAre(folder.string()));
  EXPECT_EQ(read_file(folder / "mod", 9), "mine");
  world.install();
  EXPECT_THAT(library.status("space").foreign_versions, testing::ElementsAre(folder.string()));
  EXPECT_TRUE(world.saves_stand());
}

TEST_F(Games, LiesOpenOnlyWhereItIsInstalled) {
  Build sealed = build_of("sealed");
  sealed.encrypted = true;
  std::string noise;
  for (int i = 0; i < 5000; ++i) noise += random_id();
  sealed.files.push_back({"data/noise", noise});
  world.publish(sealed);
  const std::string archive = zstd_of(tar_of(sealed.files));
  GameRequest request;
  request.progress = [&](auto, auto, auto) {
    for (const auto& [path, content] : tree_content(world.data))
      EXPECT_FALSE(content.size() >= archive.size() &&
                   content.find(archive.substr(0, 64)) != std::string::npos)
          << path;
    return true;
  };
  library.install("space", world.tuf(), request);
  EXPECT_TRUE(world.stands("sealed"));
  expect_clean();
}

TEST_F(Games, RefusesWhatIsNotTheGameAskedFor) {
  world.install();
  Build two = build_of("two");
  two.encrypted = true;
  world.publish(two);
  const json good = world.manifests["two"];
  const std::string channel = game_manifest_target("space", world.catalog.platform, "stable");
  struct Row {
    std::string name, code;
    std::function<void(json&)> damage;
  };
  const std::string other = digest("x", "sha256");
  const std::vector<Row> rows = {
      {"another game", "content_mismatch", [](json& m) { m["game_id"] = "other"; }},
      {"another platform", "platform_mismatch", [](json& m) { m["platform"] = "windows-x86_64"; }},
      {"no manifest", "unsupported_schema", [](json& m) { m = json::array(); }},
      {"another archive than signed", "content_mismatch",
       [&](json& m) { m["encrypted"]["artifact"]["sha256"] = other; }},
      {"an archive of another build", "content_mismatch",
       [&](json& m) { m["archive"]["sha256"] = other; }},
      {"another key than signed", "content_mismatch",
       [&](json& m) { m["encrypted"]["key"]["sha256"] = other; }},
      {"no key yet", "key_not_published",
       [](json& m) { m["encrypted"]["key"]["target"] = "later.key"; }},
      {"a key that does not open it", "key_mismatch",
       [&](json& m) {
         const std::string key(32, 'k');
         world.put("wrong.key", key);
         m["encrypted"]["key"] = {
             {"target", "wrong.key"}, {"length", 32}, {"sha256", digest(key, "sha256")}};
       }},
      {"other files than the archive's", "archive_inventory",
       [](json& m) { m["files"][1]["path"] = "data/other"; }},
  };
  const auto listed = world.catalog;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    json damaged = good;
    row.damage(damaged);
    world.put(channel, damaged.dump());
    // The catalogue says nothing of it.
    GameCatalog silent = listed;
    silent.games.clear();
    world.put(game_catalog_target(listed.platform), silent.to_json().dump());
    world.trusted.repository.publish_update();
    EXPECT_EQ(code_of([&] { library.update("space", world.tuf(), {}); }), row.code);
    library.discard("space");
    EXPECT_TRUE(world.stands("one"));
    expect_clean();
  }
}

TEST_F(Games, BelievesNoCatalogueThatLies) {
  const GameCatalog honest = world.catalog;
  const std::vector<std::pair<std::string, std::function<void(CatalogBuild&)>>> lies = {
      {"build", [](auto& build) { build.build_id = "two"; }},
      {"download", [](auto& build) { ++build.download_length; }},
      {"size", [](auto& build) { --build.installed_length; }},
      {"digest", [](auto& build) { build.manifest_sha256 = digest("x", "sha256"); }}};
  for (const auto& [name, lie] : lies) {
    SCOPED_TRACE(name);
    GameCatalog catalog = honest;
    lie(catalog.games["space"].channels["stable"]);
    world.put(game_catalog_target(catalog.platform), catalog.to_json().dump());
    world.trusted.repository.publish_update();
    EXPECT_EQ(code_of([&] { world.install(); }), "catalog_mismatch");
  }
  expect_clean();
  json document = honest.to_json();
  EXPECT_EQ(GameCatalog::parse(document), honest);
  document["games"].push_back(document["games"][0]);
  EXPECT_EQ(code_of([&] { GameCatalog::parse(document); }), "invalid_catalog");
  document["games"].erase(1);
  document["games"][0]["channels"]["stable"]["manifest"]["target"] = "games/other/stable.json";
  EXPECT_EQ(code_of([&] { GameCatalog::parse(document); }), "invalid_catalog");
  document["schema_version"] = 2;
  EXPECT_EQ(code_of([&] { GameCatalog::parse(document); }), "unsupported_schema");
}

TEST_F(Games, KeepsARecordOfAnotherSchema) {
  world.install();
  const fs::path path = world.paths().record;
  for (const std::string text : {R"({"schema_version":2,"more":true})", "{", "[]"}) {
    atomic_write(path, text);
    const auto failure = failure_of([&] { world.install(); });
    EXPECT_NE(failure.find(path.string()), failure.npos) << failure;
    EXPECT_NE(library.list().at(0).problem, "");
    EXPECT_NE(code_of([&] { library.remove("space", PlayerData::removed); }), "");
    EXPECT_EQ(read_file(path, 99), text);
  }
  EXPECT_TRUE(world.saves_stand());
}

TEST_F(Games, IsChangedByOneAtATime) {
  world.install();
  world.publish(build_of("two"));
  GameRequest request;
  request.progress = [&](auto, auto, auto) {
    EXPECT_EQ(code_of([&] { library.defer("space", "two", 0); }), "busy");
    EXPECT_EQ(code_of([&] { library.remove("space", PlayerData::removed); }), "busy");
    EXPECT_TRUE(library.status("space").installed);
    return true;
  };
  library.update("space", world.tuf(), request);
  EXPECT_TRUE(world.stands("two"));
}

TEST_F(Games, LeavesAVersionFolderThatIsALink) {
  world.install();
  const fs::path folder = world.active_folder();
  fs::rename(folder, world.data / "moved");
  fs::create_directory_symlink(world.data / "moved", folder);
  for (const auto& attempt : std::vector<std::function<void()>>{
           [&] { library.verify("space", {}); }, [&] { library.repair("space", world.tuf(), {}); },
           [&] { library.launch("space", {}); }})
    EXPECT_EQ(code_of(attempt), "unsafe_path");
  EXPECT_THAT(library.remove("space", PlayerData::kept).kept,
              testing::ElementsAre(folder.string()));
  EXPECT_TRUE(fs::exists(world.data / "moved/data/level"));
  fs::remove(folder);
  fs::remove_all(world.data / "moved");
  expect_clean();
}

}  // namespace tavro::games_test
