#include "app/cli_entry.h"

#include <gmock/gmock.h>

#include <iterator>
#include <sstream>

#include "support/failure.h"

namespace tavro {
namespace {

using Words = std::vector<std::string>;
using testing::ElementsAre;

Words words(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

CliEntry parse(const std::string& line) { return parse_cli_entry(words(line), "/data", nullptr); }

TEST(CliEntry, TakesEveryFormThatItsHelpTellsOf) {
  for (const char* line :
       {"list",
        "repository configure --origin https://a.example --root r.json --ca-bundle c.pem",
        "install space-game --launch",
        "update g --after-exit --build 1.2 --session s",
        "update g --launch",
        "launch g --play-current",
        "updates check --background",
        "updates defer g --build 2",
        "preload g --build 2",
        "preload g",
        "preloads",
        "preloads discard g --build 2",
        "self uninstall --remove-data",
        "self shortcut create --game g",
        "self shortcut remove",
        "uninstall g --remove-saves --confirm-game g",
        "operations wait id",
        "settings set window.size {\"w\":1}",
        "channel set g beta",
        "open g saves",
        "service status --cached",
        "crashes list --all",
        "crashes delete r --confirm-report r",
        "agreements",
        "agreements agree eula --agreement-version 3",
        "crashes send r --consent-version 1 --age-16-or-older",
        "status help"})
    EXPECT_NO_THROW(parse(line)) << line;
}

struct Refused {
  const char* line;
  const char* message;
  const char* code = "usage";
};

TEST(CliEntry, RefusesWhatNoCommandTakes) {
  const char* identifiers =
      "Game, build, session, report and operation IDs must be valid identifiers";
  const char* update =
      "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]";
  for (const Refused& row : std::initializer_list<Refused>{
           {"play g", "Unknown command; run tavro --help"},
           {"self", "Unknown command; run tavro --help"},
           {"crashes", "Unknown command; run tavro --help"},
           {"agreements other", "Wrong number of command operands; run tavro --help"},
           {"open g", "Wrong number of command operands; run tavro --help"},
           {"play --json --json", "Duplicate global option: --json"},
           {"list --data-dir", "--data-dir needs a nonempty path"},
           {"update g --create", "Option needs a nonempty value: --create"},
           {"update g --create x", "Unsupported option: --create"},
           {"list --", "Unsupported option: --"},
           {"install g --launch --launch", "Duplicate option: --launch"},
           {"preload g --build 1 --build 2", "Duplicate or missing option value: --build"},
           // Behind an option that takes a value, a global option is that value.
           {"update g --build --json", update},
           {"update g --after-exit --build 1 --launch", update},
           {"update g --session s", update},
           {"uninstall g --confirm-game h",
            "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves",
            "confirmation_required"},
           {"crashes delete r", "Confirm the exact report with --confirm-report REPORT",
            "confirmation_required"},
           {"agreements agree e --age-16-or-older",
            "Read it with agreements show ID, then agree with --agreement-version VERSION",
            "agreement_version"},
           {"crashes send r", "Review the report, then supply its exact --consent-version",
            "crash_consent"},
           {"repository configure --root r",
            "Repository setup needs --origin and an out-of-band trusted --root"},
           {"updates defer g", "Deferral needs --build BUILD"},
           {"preloads discard g", "Removing a preload needs GAME --build BUILD"},
           {"preload G", identifiers},
           {"status ../x", identifiers},
           {"channel set g B", identifiers},
           {"observe g --session S", identifiers},
           {"self shortcut create --game G", identifiers},
           {"settings set key 1.5", "Setting value must be bounded valid JSON"},
           {"open g pictures", "Open expects content, saves or state"},
           {"self uninstall --json --all", "Use self uninstall [--remove-data]"},
           {"self shortcut", "Use self shortcut create [--game GAME] or self shortcut remove"},
       }) {
    EXPECT_FAILURE(parse(row.line), std::string(row.code) + ": " + row.message) << row.line;
  }
  EXPECT_FAILURE(parse_cli_entry(Words({"status", ""}), "/d", nullptr),
                 "usage: Command operands must not be empty");
}

TEST(CliEntry, BoundsTheLine) {
  const Words most(128, "-");
  EXPECT_FAILURE(parse_cli_entry(most, "/d", nullptr), "usage: Unknown command; run tavro --help");
  const Words more(129, "-");
  EXPECT_FAILURE(parse_cli_entry(more, "/d", nullptr),
                 "usage: CLI invocation exceeds 128 arguments");
  const std::string value(16384 - 2, 'x');
  EXPECT_NO_THROW(parse_cli_entry({"settings", "set", "k", '"' + value + '"'}, "/d", nullptr));
  for (const std::string& argument : {std::string(16385, 'x'), std::string("a\0b", 3)})
    EXPECT_FAILURE(parse_cli_entry(Words(1, argument), "/d", nullptr),
                   "usage: CLI argument exceeds its bound or contains NUL");
}

TEST(CliEntry, SeparatesGlobalOptionsWhereverTheyStand) {
  const CliEntry entry = parse("install --json g --data-dir /games --launch");
  EXPECT_THAT(entry.args, ElementsAre("install", "g", "--launch"));
  EXPECT_EQ(entry.data_dir, "/games");
  EXPECT_TRUE(entry.json && entry.data_dir_set && !entry.help);
  for (const char* line : {"", "help", "anything --help at all"}) EXPECT_TRUE(parse(line).help);
  bool json = false;
  EXPECT_ANY_THROW(parse_cli_entry(words("play --build --json"), "/d", &json));
  EXPECT_FALSE(json);
  EXPECT_ANY_THROW(parse_cli_entry(Words(129, "--json"), "/d", &json));
  EXPECT_TRUE(json);
}

TEST(CliEntry, TakesWordsOutOfAForwardedLine) {
  Words line = words("shortcut --game --flag --flag --keep-bytes 7");
  EXPECT_TRUE(cli_flag(line, "--flag"));
  EXPECT_FALSE(cli_flag(line, "--flag"));
  EXPECT_EQ(cli_option(line, "--keep-bytes", "0"), "7");
  EXPECT_EQ(cli_option(line, "--keep-bytes", "0"), "0");
  EXPECT_THAT(line, ElementsAre("shortcut", "--game", "--flag"));
  Words broken = words("a --game");
  EXPECT_FAILURE(cli_flag(broken, "--x"), "usage: --game needs a value");
}

TEST(CliEntry, HelpsWithTheTextThatPeopleKnow) {
  const std::string help = cli_help();
  EXPECT_EQ(help.size(), 1402u);
  EXPECT_TRUE(help.starts_with("Tavro 0.1.0\nUsage: tavro [--data-dir PATH] [--json] COMMAND\n"));
  EXPECT_TRUE(help.ends_with("\nCommands share the GUI backend.\n"));
}

}  // namespace
}  // namespace tavro
