#include <algorithm>

#include "documents/game_catalog.h"
#include "games/game_library.h"
#include "platform/host/native_platform.h"
#include "publisher/check.h"
#include "publisher/publication.h"
#include "publisher/publish_line.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"
#include "tuf/client_limits.h"
#include "tuf/tuf.h"

namespace tavro::game_repository_test {

/// A repository with a key for its targets, and one for snapshot and timestamp.
class GameRoad : public testing::Test {
 protected:
  GameRoad() {
    for (const char* key : {"root", "targets", "online", "studio"})
      done("keys new --out @" + std::string(key) + ".pem");
    done(
        "root new --days 30 --root-key @root.pem --targets-key @targets.pem --key @online.pem"
        " --out @root.json");
    done("repository new --root @root.json" + all);
  }

  json done(const std::string& line) const {
    const Outcome outcome = publish(line + " --json", home);
    EXPECT_EQ(outcome.status, 0) << line << ": " << outcome.err;
    return json::parse(outcome.out, nullptr, false);
  }

  /// Of a command that must fail, and leave what is served as it was.
  std::string refused(const std::string& line) const {
    const auto before = tree_content(served);
    const Outcome outcome = publish(line + " --json", home);
    EXPECT_EQ(tree_content(served), before) << line;
    return json::parse(outcome.out)["problem"].value("code", "");
  }

  /// Writes the folder of a build, and tells the words that pack it into the folder ID-BUILD.
  std::string game(const std::string& id, const std::string& build) const {
    const json described = {{"game_id", id}, {"display_name", id}, {"executable", "play"}};
    write_tree({{id + "/files/play", "#!/bin/sh\n# " + id + build, 0755},
                {id + "/files/level", std::string(70000, build.back())}},
               home);
    write_bytes(home / id / "game.json", described.dump());
    return "game @" + id + " --level 1 --build " + build + " --out @" + id + '-' + build + ' ';
  }
  json release(const std::string& id, const std::string& build, const std::string& more) const {
    return done("release " + game(id, build) + more);
  }

  template <typename Use>
  void as_client(Use&& use) const {
    const fs::path trust = home / random_id();
    TufClient::initialize(trust, read_file(home / "root.json", 100000));
    FolderTransport metadata(served / metadata_folder), targets(served / targets_folder);
    TufClient client(trust, metadata, targets, client_limits, std::chrono::system_clock::now);
    use(client);
  }

  std::string install(const std::string& id, const GameRequest& request = {}) const {
    std::string got;
    as_client([&](TufClient& client) {
      const GameLibrary library(data);
      got = code_of([&] { got = library.install(id, client, request).build_id; }) + got;
    });
    return got;
  }

  /// The catalogue as a client reads it, every build of it proved.
  std::string offered() const {
    std::string list;
    as_client([&](TufClient& client) {
      for (const auto& [id, listed] : GameLibrary(data).available(client).games)
        for (const auto& [channel, build] : listed.channels)
          list += (list.empty() ? "" : ", ") + id + ' ' + channel + ' ' + build.build_id;
    });
    for (const json& build : checked())
      EXPECT_FALSE(build.contains("problem")) << build << " of " << list;
    return list;
  }

  json checked() const {
    FolderTransport metadata(served / metadata_folder), targets(served / targets_folder);
    CheckRequest request{"", home / "root.json", "", {}, false};
    request.games = true;
    return check_repository(request, metadata, targets, {}).at("games");
  }

  /// The one file that is served under a name that ends like this.
  fs::path served_file(const std::string& end) const {
    for (const auto& file : tree_content(served))
      if (file.first.ends_with(end)) return served / file.first;
    return {};
  }

  TempFolder temp;
  fs::path home = temp.path(), served = home / "r/public", data = home / "data";
  const std::string online = " --repository @r --key @online.pem ";
  const std::string all = online + "--key @targets.pem ";
  const std::string quest = "games/quest/" + std::string(native_platform()) + '/';
};

TEST_F(GameRoad, TheCatalogueTellsWhatIsPublishedAfterEveryChange) {
  const json first = release("quest", "1", all);
  EXPECT_EQ(offered(), "quest stable 1");
  EXPECT_EQ(install("quest"), "1");
  release("quest", "2", "--channel beta" + all);
  const std::pair<std::string, std::string> steps[] = {
      {"repository add --release @quest-2", "quest beta 2, quest stable 2"},
      {"repository add --target " + quest + "beta.json=@quest-1/game.manifest.json",
       "quest beta 1, quest stable 2"},
      {"repository remove --target " + quest + "stable.json", "quest beta 1"},
      {"repository catalog", "quest beta 1"},
      {"repository withdraw --game quest --channel beta", ""},
      {"repository add --release @quest-2", "quest stable 2"}};
  for (const auto& [line, list] : steps) {
    done(line + all);
    EXPECT_EQ(offered(), list) << line;
  }
  // Back to a build that no channel has any more.
  EXPECT_EQ(install("quest"), "2");
  GameRequest back;
  back.manifest_sha256 = first["manifest_sha256"];
  EXPECT_EQ(install("quest", back), "1");
  done("repository withdraw --game quest" + all);
  EXPECT_EQ(offered(), "");
  EXPECT_EQ(install("quest", back), "game_not_published");
}

TEST_F(GameRoad, ALockStaysOnAChannelUntilItIsOpened) {
  const auto locked = [&] {
    std::string found;
    as_client([&](TufClient& tuf) {
      const fs::path folder = home / random_id();
      fs::create_directory(folder);
      const auto file = tuf.download(game_catalog_target(native_platform()), folder, {}, {}, {});
      const auto catalog = GameCatalog::parse(json::parse(read_file(file, kMaxCatalogBytes)));
      found = catalog.games.at("quest").channels.at("stable").unlock_sha256;
    });
    return found;
  };
  release("quest", "1", all);
  write_bytes(home / "code", " a long secret\n");
  done("repository lock --game quest --channel stable --code-file @code" + all);
  EXPECT_EQ(locked(), digest("a long secret", "sha256"));
  release("quest", "2", all);
  done("repository catalog" + all);
  EXPECT_EQ(locked(), digest("a long secret", "sha256"));
  EXPECT_EQ(refused("repository lock --game quest --channel beta --open" + all),
            "target_not_found");
  done("repository lock --game quest --channel stable --open" + all);
  EXPECT_EQ(locked(), "");
}

TEST_F(GameRoad, AnEncryptedBuildOpensWithItsOwnKeyOnly) {
  release("quest", "1", "--encrypt --hold-key" + all);
  EXPECT_EQ(install("quest"), "key_not_published");
  EXPECT_EQ(checked()[0]["problem"]["code"], "key_not_published");
  EXPECT_FALSE(fs::exists(home / "quest-1/1.tar.zst"));
  const std::string key =
      "repository add --target " + quest + "1.tar.zst.key=@quest-1/1.tar.zst.key";
  done(key + all);
  EXPECT_EQ(install("quest"), "1");
  EXPECT_EQ(offered(), "quest stable 1");

  // The same build again is another file under another key, and does not take the place of the
  // first.
  fs::rename(home / "quest-1", home / "first");
  EXPECT_EQ(refused("release " + game("quest", "1") + "--encrypt" + all), "target_conflict");
  const auto of_key = [&](const char* folder) {
    return read_file(home / folder / "1.tar.zst.key", 32);
  };
  EXPECT_NE(of_key("first"), of_key("quest-1"));
  done("repository add --target elsewhere=@quest-1/1.tar.zst.key" + all);
  done("repository withdraw --game quest" + all);
  EXPECT_EQ(refused("repository add --release @quest-1" + all), "key_reused");
  done("repository remove --target elsewhere" + all);
  done("repository add --release @quest-1" + all);

  // The bytes of the first one stay until a prune.
  done("repository prune --repository @r");
  std::fstream(served_file(".encrypted")).seekp(100) << "!!!!";
  EXPECT_EQ(checked()[0]["problem"]["code"], "hash_mismatch");
}

TEST_F(GameRoad, AStudioPublishesItsGamesAndNoOther) {
  const std::string studio = " --role studio --key @studio.pem" + online;
  // The studio shows its public key only, and signs with its first release.
  done("keys public --key @studio.pem --out @studio.json");
  done("repository delegate --name studio --game rose --role-key @studio.json" + all);
  EXPECT_EQ(refused("repository delegate --name other --path rose/* --role-key @studio.json" + all),
            "signature_threshold");
  release("quest", "1", all);
  // Without the keys of the catalogue it stays behind, but it does not lie.
  EXPECT_EQ(release("rose", "1", studio)["catalogs"]["behind"].size(), 1U);
  EXPECT_EQ(offered(), "quest stable 1");
  EXPECT_EQ(install("rose"), "1");
  done("repository catalog" + all);
  EXPECT_EQ(offered(), "quest stable 1, rose stable 1");
  EXPECT_EQ(refused("release " + game("rose", "2") + studio), "catalog_not_signed");
  EXPECT_EQ(refused("repository withdraw --game rose" + studio), "catalog_not_signed");

  done("repository delegate --name catalog --path games/catalog-*.json --role-key @online.pem" +
       all);
  done("repository catalog --role catalog" + all);
  done("repository add --release @rose-2" + studio);
  EXPECT_EQ(offered(), "quest stable 1, rose stable 2");
  EXPECT_EQ(install("rose"), "2");

  const std::pair<std::string, std::string> wrong[] = {
      {"target_conflict", "repository add --release @quest-1" + studio},
      {"target_not_delegated", "release " + game("lily", "1") + studio},
      {"target_conflict", "repository add --release @rose-1" + all},
      {"content_mismatch", "repository add --target games/rose/" + quest.substr(12) +
                               "stable.json=@quest-1/game.manifest.json" + studio}};
  for (const auto& [code, line] : wrong) EXPECT_EQ(refused(line), code) << line;
  done("repository undelegate --name studio" + all);
  EXPECT_EQ(offered(), "quest stable 1");
}

TEST_F(GameRoad, NothingThatNoClientWouldTakeIsPublished) {
  release("quest", "1", all);
  for (const char* channel : {"a", "b", "c", "d", "e", "f", "g"})
    done("repository add --release @quest-1 --channel " + (channel + all));
  write_bytes(home / "quest/files/level", "another build of the same name");
  const std::string zeros(64, '0');
  const std::pair<std::string, std::string> wrong[] = {
      {"invalid_catalog", "repository add --release @quest-1 --channel ninth"},
      {"invalid_identity", "repository add --release @quest-1 --channel " + zeros},
      {"target_conflict", "release game @quest --level 1 --build 1 --out @other"},
      {"invalid_manifest", "repository add --target " + quest + "stable.json=@root.json"},
      {"content_mismatch",
       "repository add --target " + quest + zeros + ".json=@quest-1/game.manifest.json"},
      {"usage", "repository add --target games/catalog-linux-x86_64.json=@root.json"},
      {"target_not_found", "repository withdraw --game quest --channel ninth"}};
  for (const auto& [code, line] : wrong) EXPECT_EQ(refused(line + all), code) << line;
}

TEST_F(GameRoad, ACrashAtAnyCallLeavesACatalogueThatIsTrue) {
  release("quest", "1", all);
  release("quest", "2", "--channel beta" + all);
  const fs::path intact = home / "intact";
  copy_tree(home / "r", intact);
  const auto prepare = [&] { copy_tree(intact, home / "r"); };
  const auto work = [&] {
    const Outcome outcome = publish("repository add --release @quest-2 --json" + all, home);
    if (outcome.status != 0) fail("failed", outcome.out);
  };
  const auto check = [&](const Stop& stop) {
    const std::string list = offered();
    EXPECT_TRUE(list == "quest beta 2, quest stable 2" ||
                (!stop.code.empty() && list == "quest beta 2, quest stable 1"))
        << stop.call << ": " << list;
  };
  EXPECT_GT(strike_each_call(Fault::cut, EIO, prepare, work, check), 20);
}

}  // namespace tavro::game_repository_test
