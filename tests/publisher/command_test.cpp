#include "publisher/command.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/native_package.h"
#include "publisher/repository_state.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

struct Outcome {
  int status = 0;
  std::string out;
  std::string err;
};

Outcome publish(const std::vector<std::string>& arguments, bool cancelled = false) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = run_publish(arguments, [=] { return cancelled; });
  return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

struct Misuse {
  std::vector<std::string> arguments;
  const char* message;
};

TEST(PublishCommand, MisuseIsToldInOneSentence) {
  const Misuse all[] = {
      {{}, "Choose a command; tavro-publish --help lists them"},
      {{"frobnicate"}, "Unknown command: frobnicate"},
      {{"--json"}, "Unknown option: --json"},
      {{"keys"}, "Use keys new or keys show or keys public"},
      {{"root", "old"}, "Use root new"},
      {{"check", "--root", "a"}, "URL is needed"},
      {{"check", "https://a.test", "b"}, "Unexpected argument: b"},
      {{"repository", "timestamp", "--repository", "a"}, "Choose a key to sign with: --key FILE"},
      {{"keys", "new"}, "Option --out is needed"},
      {{"keys", "new", "--out"}, "Option --out needs a value"},
      {{"keys", "new", "--out", ""}, "Option --out needs a value"},
      {{"keys", "new", "--out", "a", "--out", "b"}, "Option --out was given twice"},
      {{"keys", "new", "stray"}, "Unexpected argument: stray"},
      {{"keys", "new", "--force"}, "Unknown option: --force"},
      {{"keys", "new", "--help", "--force"}, "Unknown option: --force"},
      {{"keys", "new", "--out", "a", "--type", "dsa"}, "Choose the key type ed25519, ecdsa or rsa"},
      {{"root", "new", "--out", "a"}, "Choose the expiry with either --expires TIME or --days N"},
      {{"root", "new", "--out", "a", "--days", "0"},
       "Option --days needs a number from 1 to 36500"},
      {{"root", "new", "--out", "a", "--days", "9"},
       "Choose a key with --root-key FILE or --key FILE"},
      {{"bootstrap", "--folder", "a", "--build", "1", "--out", "b", "--level", "20"},
       "Option --level needs a number from 1 to 19"},
      {{"launcher", "--folder", "a", "--build", "1", "--out", "b", "--cli", "c", "--gui", "d",
        "--helper", "bin/x"},
       "A helper is given as ROLE=PATH: bin/x"},
      {{"package", "--out", "a", "--origin", "b", "--root", "c", "--bootstrap", "d", "--launcher",
        "e", "--brand-name", "f"},
       "Option --brand-name needs --brand-id"},
  };
  for (const Misuse& misuse : all) {
    const Outcome outcome = publish(misuse.arguments);
    EXPECT_EQ(outcome.status, 2) << misuse.message;
    EXPECT_EQ(outcome.err, std::string(misuse.message) + "\n");
    EXPECT_EQ(outcome.out, "");
  }
}

TEST(PublishCommand, HelpTellsCommandsAndTheirOptions) {
  EXPECT_NE(publish({"--help"}).out.find("  keys new               Create a signing key\n"),
            std::string::npos);
  const Outcome outcome = publish({"keys", "new", "--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out.substr(0, outcome.out.find('\n')),
            "Usage: tavro-publish keys new --out FILE [OPTION]...");
}

class PublishRoad : public testing::Test {
 protected:
  PublishRoad() {
    write_tree({{"launcher/bin/cli", "cli", 0755},
                {"launcher/bin/gui", "gui", 0755},
                {"launcher/bin/helper", "helper", 0755},
                {"bootstrap/bin/tavro-bootstrap", "bootstrap", 0755}},
               home);
  }

  std::string at(const char* name) const { return (home / name).string(); }

  /// Runs a command that must succeed, and returns its document.
  json done(std::vector<std::string> arguments) const {
    arguments.push_back("--json");
    const Outcome outcome = publish(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    json document = json::parse(outcome.out, nullptr, false);
    EXPECT_EQ(document.value("schema_version", 0), 1) << outcome.out;
    return document;
  }

  std::vector<std::string> launcher_arguments() const {
    return {"launcher",
            "--folder",
            at("launcher"),
            "--build",
            "1.0.0",
            "--out",
            at("l"),
            "--cli",
            "bin/cli",
            "--gui",
            "bin/gui",
            "--helper",
            "maintenance=bin/helper",
            "--level",
            "1"};
  }

  TempFolder temp;
  fs::path home = temp.path();
};

TEST_F(PublishRoad, LeadsFromKeysToASealedPackage) {
  const json root_key = done({"keys", "new", "--out", at("root.pem")});
  const json online = done({"keys", "new", "--type", "ecdsa", "--out", at("online.pem")});
  done({"keys", "public", "--key", at("online.pem"), "--out", at("online.json")});
  EXPECT_EQ(done({"keys", "show", "--key", at("online.json")})["key_id"], online["key_id"]);

  // The online key is listed by its public record: whoever signs the root need not hold it.
  done({"root", "new", "--days", "30", "--root-key", at("root.pem"), "--key", at("online.json"),
        "--out", at("root.json")});
  done(launcher_arguments());
  done({"bootstrap", "--folder", at("bootstrap"), "--build", "1.0.0", "--out", at("b")});
  const Outcome sealed =
      publish({"package", "--origin", "https://repository.example", "--root", at("root.json"),
               "--bootstrap", at("b"), "--launcher", at("l"), "--out", at("package")});
  EXPECT_EQ(sealed.err, "Assembling…\n");
  const std::string seal = sealed.out.substr(sealed.out.size() - 66, 64);
  EXPECT_EQ(sealed.out, "Sealed the package in " + at("package") + " with " + seal + ".\n");
  const NativePackage package = read_native_package(home / "package", seal);
  EXPECT_EQ(package.launcher.runtime_helpers.at("bin/helper"), "maintenance");
  const json root = json::parse(package.root_metadata);
  EXPECT_EQ(root["signed"]["roles"]["root"]["keyids"], json::array({root_key["key_id"]}));
  EXPECT_EQ(root["signed"]["roles"]["targets"]["keyids"], json::array({online["key_id"]}));
}

TEST_F(PublishRoad, LeadsFromARootToARepository) {
  done({"keys", "new", "--out", at("key.pem")});
  done({"keys", "new", "--out", at("quest.pem")});
  done({"root", "new", "--days", "30", "--key", at("key.pem"), "--out", at("root.json")});
  const auto repository = [&](const char* verb, std::vector<std::string> more) {
    more.insert(more.begin(),
                {"repository", verb, "--repository", at("r"), "--key", at("key.pem")});
    return done(more);
  };
  repository("new", {"--root", at("root.json")});
  done(launcher_arguments());
  repository("add", {"--release", at("l")});
  repository("delegate", {"--name", "quest", "--path", "quest/*", "--role-key", at("quest.pem"),
                          "--key", at("quest.pem")});
  repository("add", {"--role", "quest", "--target", "quest/map=" + at("root.json"), "--key",
                     at("quest.pem")});
  json told = repository("rotate", {"--days", "40", "--timestamp-key", at("quest.pem"), "--key",
                                    at("quest.pem"), "--timestamp-days", "3"});

  const RepositoryState state = read_repository(home / "r/public");
  EXPECT_EQ(told["roles"]["root"]["version"], 2);
  EXPECT_EQ(told["roles"]["timestamp"],
            (json{{"version", 5}, {"expires", state.timestamp.at("expires")}}));
  const json& targets = state.roles.at("targets").at("targets");
  EXPECT_TRUE(targets.contains("launcher-linux-x86_64.manifest.json"));
  EXPECT_TRUE(targets.contains("launcher-linux-x86_64-1.0.0.tar.zst"));
  EXPECT_TRUE(state.roles.at("quest").at("targets").contains("quest/map"));
  // Nothing listens on this port.
  const Outcome unreachable =
      publish({"check", "https://localhost:1", "--root", at("root.json"), "--json"});
  EXPECT_EQ(json::parse(unreachable.out)["problem"]["code"], "network");
}

TEST_F(PublishRoad, FailureIsToldAndCancellingHasItsOwnStatus) {
  Outcome outcome = publish({"keys", "show", "--key", at("none"), "--json"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(json::parse(outcome.out)["problem"]["code"], "key_file");

  outcome = publish(launcher_arguments(), true);
  EXPECT_EQ(outcome.status, 4);
  EXPECT_EQ(outcome.err, "Packing…\nOperation cancelled at a safe boundary\n");
  EXPECT_FALSE(fs::exists(home / "l"));
}

}  // namespace
}  // namespace tavro
