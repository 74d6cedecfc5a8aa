#include "documents/documents.h"
#include "documents/game_manifest.h"
#include "package/native_package.h"
#include "publisher/publish_line.h"
#include "publisher/repository_state.h"
#include "support/sealed_package.h"
#include "support/snapshot_archive.h"
#include "support/theme_folder.h"

namespace tavro::command_test {

TEST(PublishCommand, MisuseIsToldInOneSentence) {
  const std::pair<const char*, const char*> all[] = {
      {"", "Choose a command; tavro-publish --help lists them"},
      {"--verbose", "Unknown option: --verbose"},
      {"repository timestamp --repository a", "Choose a key to sign with: --key FILE"},
      {"keys new", "Option --out is needed"},
      {"keys new --out", "Option --out needs a value"},
      {"keys new --out a --out b", "Option --out was given twice"},
      {"root new --out a --days 36501", "Option --days needs a number from 1 to 36500"},
      {"repository add --repository a --target b=c --target b=d", "Target was given twice: b"},
      {"package --out a --origin b --root c --bootstrap d --launcher e --brand-name f",
       "Option --brand-name needs --brand-id"},
  };
  for (const auto& [arguments, message] : all) {
    const Outcome outcome = publish(arguments);
    EXPECT_EQ(outcome.status, 2) << message;
    EXPECT_EQ(outcome.err, std::string(message) + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_EQ(json::parse(publish("keys new --json").out)["problem"]["code"], "usage");
}

class PublishRoad : public testing::Test {
 protected:
  PublishRoad() {
    write_tree({{"launcher/bin/cli", "cli", 0755},
                {"launcher/bin/gui", "gui", 0755},
                {"launcher/bin/helper", "helper", 0755},
                {"bootstrap/bin/tavro-bootstrap", "bootstrap", 0755},
                {"brand.ico", sample_icon()}},
               home);
  }

  /// Runs a command that must succeed, and returns its document.
  json done(const std::string& line) const {
    const Outcome outcome = publish(line + " --json", home);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    json document = json::parse(outcome.out, nullptr, false);
    EXPECT_EQ(document.value("schema_version", 0), 1) << outcome.out;
    return document;
  }

  const std::string pack_launcher =
      "launcher --folder @launcher --build 1.0.0 --out @l --cli bin/cli --gui bin/gui"
      " --helper maintenance=bin/helper --level 1";
  TempFolder temp;
  fs::path home = temp.path();
};

TEST_F(PublishRoad, LeadsFromKeysToASealedPackage) {
  done("keys new --out @root.pem");
  const json online = done("keys new --type ecdsa --out @online.pem");
  done("keys public --key @online.pem --out @online.json");
  EXPECT_EQ(done("keys show --key @online.json")["key_id"], online["key_id"]);

  // The online key is listed by its public record: whoever signs the root need not hold it.
  done("root new --days 30 --root-key @root.pem --key @online.json --out @root.json");
  done(pack_launcher);
  done("bootstrap --folder @bootstrap --build 1.0.0 --out @b");
  make_theme(home / "theme");
  const fs::path bundle = home / "ca.pem";
  const std::string certify = "openssl req -x509 -newkey ed25519 -nodes -subj /CN=a -keyout ";
  EXPECT_EQ(std::system((certify + "/dev/null -out " + bundle.string() + " 2>&1").c_str()), 0);
  const Outcome sealed = publish(
      "package --origin https://repository.example --root @root.json --bootstrap @b --launcher @l"
      " --out @package --brand-name Acme --brand-id acme --brand-publisher Games"
      " --brand-icon @brand.ico --brand-theme @theme --ca-bundle @ca.pem --featured-id quest "
      "--featured-name Quest",
      home);
  const std::string seal = sealed.out.substr(sealed.out.size() - 66, 64);
  const NativePackage package = read_native_package(home / "package", seal);
  EXPECT_EQ(package.launcher.runtime_helpers.at("bin/helper"), "maintenance");
  EXPECT_EQ(package.brand.value().publisher, "Games");
  EXPECT_EQ(package_theme(home / "package", seal)->icon->width, 256U);
  EXPECT_EQ(package.ca_bundle, read_file(bundle, 4096));
  EXPECT_EQ(package.featured_game.value().name, "Quest");
  const json root = json::parse(package.root_metadata);
  EXPECT_EQ(root["signed"]["roles"]["targets"]["keyids"], json::array({online["key_id"]}));
}

TEST_F(PublishRoad, ShowsAThemeAlsoWhenItsContrastIsLow) {
  json definition = make_theme(home / "theme");
  const json told = done("theme @theme --sheet @good.svg");
  EXPECT_EQ(told["contrasts"].size(), 17U);
  definition["colors"]["danger_hover"] = "#d6425c";
  write_bytes(home / "theme/theme.json", definition.dump());
  const Outcome low = publish("theme @theme --sheet @low.svg", home);
  EXPECT_EQ(low.status, 1);
  EXPECT_NE(low.err.find("hover  4.38:1, at least 4.50:1  TOO LOW\n"), low.err.npos);
  EXPECT_TRUE(
      low.err.ends_with("\nTheme contrast is below 4.5:1 for danger_text on danger_hover\n"));
  EXPECT_NE(read_file(home / "low.svg", 1 << 20).find("4.38, at least 4.50"), low.err.npos);
}

TEST_F(PublishRoad, PacksAGameWithWhatItsPlayersSee) {
  const json described = json::parse(R"({"game_id": "quest", "display_name": "The Quest",
      "executable": "bin/run", "notes": "notes.txt", "presentation": {"tagline": "Go",
      "artwork": {"file": "a.bmp", "alternative_text": "A light"}}, "sdk": {"required": false}})");
  write_tree({{"game/files/bin/run", "run", 0755}, {"game/notes.txt", "New."}}, home);
  write_bytes(home / "game/game.json", described.dump());
  const std::string draw = "convert -size 9x5 plasma: -type TrueColor ", at = home / "game/a.bmp";
  EXPECT_EQ(std::system((draw + "BMP3:" + at).c_str()), 0);
  const json told = done("game @game --build 1.0.0 --level 1 --out @g");
  const GameManifest game =
      GameManifest::parse(json::parse(read_file(told["manifest"].get<std::string>(), 1 << 20)));
  EXPECT_EQ(game.presentation.artwork.value().height, 5U);
  EXPECT_EQ(game.presentation.tagline + game.release_notes, "GoNew.");

  EXPECT_EQ(std::system((draw + "PNG:" + home.string() + "/game/a.png").c_str()), 0);
  expect_answers(R"(unknown member: title|/title 1|/presentation/artwork/title 1
needs the text|/game_id|/executable 1
malformed|/presentation/artwork/file|/notes {}
unsafe_path|/notes "../ca.pem"
this is none: a.png|/presentation/artwork/file "a.png"
monogram|/presentation/monogram "Quest")",
                 [&](const std::string& damage) {
                   write_bytes(home / "game/game.json", damaged(described, damage).dump());
                   const Outcome outcome = publish("game @game --build 1 --out @h --json", home);
                   const json problem = json::parse(outcome.out).at("problem");
                   fail(problem.at("code").get<std::string>(),
                        problem.at("message").get<std::string>());
                 });
}

TEST_F(PublishRoad, LeadsFromARootToARepository) {
  const std::string own = " --repository @r --key @key.pem ";
  done("keys new --out @key.pem");
  done("keys new --out @quest.pem");
  done("root new --days 30 --key @key.pem --out @root.json");
  done("repository new --root @root.json" + own);
  done(pack_launcher);
  done("repository add --release @l" + own);
  done("repository delegate --name quest --path quest/* --role-key @quest.pem --key @quest.pem" +
       own);
  done("repository add --role quest --target quest/map=@root.json --key @quest.pem" + own);
  const json told = done(
      "repository rotate --days 40 --timestamp-key @quest.pem --key @quest.pem --timestamp-days 3" +
      own);

  const RepositoryState state = read_repository(home / "r/public");
  EXPECT_EQ(told["roles"]["root"]["version"], 2);
  EXPECT_EQ(told["trusted_until"], state.timestamp.at("expires"));
  const json& targets = state.roles.at("targets").at("targets");
  EXPECT_TRUE(targets.contains("launcher-linux-x86_64-1.0.0.tar.zst"));
  EXPECT_TRUE(state.roles.at("quest").at("targets").contains("quest/map"));

  std::fstream(home / "l/launcher-linux-x86_64-1.0.0.tar.zst").seekp(40) << "!!!!";
  const auto code = [&](const std::string& line) {
    return json::parse(publish(line + " --json", home).out)["problem"]["code"];
  };
  EXPECT_EQ(code("repository add --release @l --key @quest.pem" + own), "content_mismatch");
  EXPECT_EQ(read_repository(home / "r/public").timestamp, state.timestamp);
  // Nothing listens on this port.
  EXPECT_EQ(code("check https://localhost:1 --root @root.json"), "network");
}

TEST_F(PublishRoad, FailureIsToldAndCancellingHasItsOwnStatus) {
  // Told in the client's words, and before anything is packed.
  EXPECT_EQ(publish(pack_launcher.substr(0, pack_launcher.find(" --helper")), home).err,
            "Packing…\nEvery native helper needs declared lifetime ownership\n");
  EXPECT_EQ(publish(pack_launcher + " --target ../l.zst", home).err,
            "Packing…\nPath contains an unsafe component\n");
  write_tree({{"bootstrap/notes.old", ""}}, home);
  EXPECT_EQ(publish("bootstrap --folder @bootstrap --build 1.0.0 --out @b", home).err,
            "Packing…\nBootstrap update holds a name of replaced files: notes.old\n");
  const Outcome outcome = publish(pack_launcher, home, true);
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.err, "Packing…\nOperation cancelled at a safe boundary\n");
  EXPECT_FALSE(fs::exists(home / "l"));
}

}  // namespace tavro::command_test
