#include "console/cli_entry.h"

#include <iterator>

#include "support/answers.h"

namespace tavro::cli_entry_test {

using Words = std::vector<std::string>;
using testing::ElementsAre;

Words words(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

CliEntry parse(const std::string& line) { return parse_cli_entry(words(line), "/data", nullptr); }

TEST(CliEntry, TakesEveryFormThatItsHelpTellsOf) {
  expect_answers(
      R"(|list|repository configure --origin https://a.example --root r.json --ca-bundle c.pem
|install space-game --launch|update g --after-exit --build 1.2 --session s|update g --launch
|launch g --play-current|updates check --background|updates defer g --build 2
|preload g --build 2|preload g|preloads|preloads discard g --build 2
|self uninstall --remove-data|self shortcut create --game g|self shortcut remove
|uninstall g --remove-saves --confirm-game g|operations wait id|settings set window.size {"w":1}
|channel set g beta|open g saves|service status --cached|status help
|crashes list --all|crashes delete r --confirm-report r
|crashes send r --consent-version 1 --age-16-or-older
|agreements|agreements agree eula --agreement-version 3)",
      parse);
}

TEST(CliEntry, RefusesWhatNoCommandTakes) {
  const auto refuse = [](const std::string& failure, const std::string& line) {
    EXPECT_FAILURE(parse(line), failure) << line;
  };
  each_cell(
      "confirmation_required: Specify uninstall GAME --confirm-game GAME; add --remove-saves only "
      "to delete saves|uninstall g --confirm-game h\n"
      "confirmation_required: Confirm the exact report with --confirm-report REPORT"
      "|crashes delete r\n"
      "agreement_version: Read it with agreements show ID, then agree with --agreement-version "
      "VERSION|agreements agree e --age-16-or-older\n"
      "crash_consent: Review the report, then supply its exact --consent-version|crashes send r",
      refuse);
  // Behind an option that takes a value, a global option is that value.
  each_cell(
      "Unknown command; run tavro --help|play g|self|crashes\n"
      "Wrong number of command operands; run tavro --help|agreements other|open g\n"
      "Duplicate global option: --json|play --json --json\n"
      "--data-dir needs a nonempty path|list --data-dir\n"
      "Option needs a nonempty value: --create|update g --create\n"
      "Unsupported option: --create|update g --create x\n"
      "Unsupported option: --|list --\n"
      "Duplicate option: --launch|install g --launch --launch\n"
      "Duplicate or missing option value: --build|preload g --build 1 --build 2\n"
      "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME [--launch]"
      "|update g --build --json|update g --after-exit --build 1 --launch|update g --session s\n"
      "Repository setup needs --origin and an out-of-band trusted --root"
      "|repository configure --root r\n"
      "Deferral needs --build BUILD|updates defer g\n"
      "Removing a preload needs GAME --build BUILD|preloads discard g\n"
      "Game, build, session, report and operation IDs must be valid identifiers|preload G"
      "|status ../x|channel set g B|observe g --session S|self shortcut create --game G\n"
      "Setting value must be bounded valid JSON|settings set key 1.5\n"
      "Open expects content, saves or state|open g pictures\n"
      "Use self uninstall [--remove-data]|self uninstall --json --all\n"
      "Use self shortcut create [--game GAME] or self shortcut remove|self shortcut",
      [&](const std::string& message, const std::string& line) {
        refuse("usage: " + message, line);
      });
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

}  // namespace tavro::cli_entry_test
