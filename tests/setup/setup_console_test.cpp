#include "setup/setup_console.h"

#include <cstdlib>

#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "package/brand.h"
#include "setup/setup_command.h"
#include "setup/setup_dispatch.h"
#include "support/answers.h"

namespace tavro::setup_console_test {

using Arguments = std::vector<std::string>;

struct Outcome {
  int status = 0;
  std::string output;
  std::string errors;
};

Outcome run(const Arguments& arguments, const std::string& program = "tavro-install") {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Outcome outcome;
  outcome.status = run_setup_console(arguments, program, "", {});
  outcome.output = testing::internal::GetCapturedStdout();
  outcome.errors = testing::internal::GetCapturedStderr();
  return outcome;
}

class SetupConsole : public testing::Test {
 protected:
  SetupConsole() { setenv("XDG_DATA_HOME", folder.path().c_str(), 1); }
  ~SetupConsole() override { set_product_name("Tavro"); }

  TempFolder folder;
};

/// The words of a line; '' stands for an empty one.
Arguments words(const std::string& line) {
  std::istringstream text(line);
  Arguments all;
  for (std::string word; text >> word;) all.push_back(word == "''" ? "" : word);
  return all;
}

TEST_F(SetupConsole, RefusesALineOnStandardErrorAlone) {
  const auto refuse = [](const std::string& message, const std::string& line) {
    const Outcome outcome = run(words(line));
    EXPECT_EQ(outcome.status, 2) << line;
    EXPECT_EQ(outcome.errors + outcome.output, message + "\n");
  };
  each_cell(
      "Unknown option: --what|--help --what\nUnknown option: -|-\n"
      "--remove-data only applies to uninstall|repair --remove-data --help\n"
      "Choose one command|install nonsense|status ''\n"
      "Unknown command: update|update\n"
      "Use shortcut create or shortcut remove|shortcut|shortcut --json\n"
      "Option --data-dir needs a value|status --data-dir\n"
      "Option --package needs a value|--package ''\n"
      "--package only applies to install and repair|status --game x --remove-data --package x\n"
      "--game only applies to shortcut create|shortcut remove --game x\n"
      "Choose the initial package with --package DIR|install",
      refuse);
  EXPECT_EQ(run(words("shortcut create --game A_b")).status, 1);
}

TEST(SetupCommandLine, TakesOptionsAnywhereAndTheLastOneWins) {
  const auto line = words("--data-dir /a --json uninstall --remove-data --data-dir --json");
  const SetupCommand command = parse_setup_command(line, "/d");
  EXPECT_EQ(command.data_root, "--json");
  EXPECT_TRUE(command.data_root_chosen && command.remove_data && command.json && !command.help);
}

TEST_F(SetupConsole, TellsOnlyTheInstallerHowToInstall) {
  const auto says = testing::HasSubstr("install [--package DIR]");
  EXPECT_THAT(run({"-h"}).output, says);
  EXPECT_THAT(run({"--help"}, "tavro").output, testing::Not(says));
  EXPECT_EQ(run({}, "tavro").errors, "Use the Tavro installer to install or repair Tavro\n");
}

TEST_F(SetupConsole, AnswersInTheFormThatWasAskedFor) {
  const std::string root = (folder.path() / "Tavro").string();
  EXPECT_EQ(run({"status", "--json"}).output,
            R"({"bootstrap_build":"","bootstrap_update_pending":false,"data_root":")" + root +
                R"(","incomplete":false,"installed":false,"last_operation":null,)"
                R"("launcher_build":"","schema_version":1,"shortcuts":[]})"
                "\n");
  const std::string message = "Tavro is not installed in " + root;
  const Outcome refused = run({"uninstall", "--json"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, R"({"problem":{"code":"not_installed","message":")" + message +
                                "\"},\"schema_version\":1}\n");
  EXPECT_EQ(refused.errors, message + "\n");
  EXPECT_FALSE(std::filesystem::exists(root));
  // A path may be no text.
  const Outcome replaced = run({"status", "--json", "--data-dir", folder.path() / "\xff"});
  EXPECT_EQ(replaced.status, 0);
  EXPECT_THAT(replaced.output, testing::HasSubstr("\xEF\xBF\xBD"));
}

TEST_F(SetupConsole, FindsTheUserFolderInTheEnvironment) {
  EXPECT_EQ(default_install_folder(Brand{"Blue Fox", "fox", "Fox", false}),
            folder.path() / "Blue Fox");
  setenv("XDG_DATA_HOME", "relative", 1);
  const std::string home = std::getenv("HOME") == nullptr ? "/" : std::getenv("HOME");
  setenv("HOME", "/home/player", 1);
  EXPECT_EQ(user_data_root(), "/home/player/.local/share/Tavro");
  setenv("HOME", "player", 1);
  const Outcome refused = run({"status", "--json"});
  EXPECT_EQ(run({"--help"}).status + run({"status", "--data-dir", "/nowhere"}).status, 0);
  setenv("HOME", home.c_str(), 1);
  EXPECT_EQ(refused.output + refused.errors, "HOME must identify an absolute user directory\n");
}

TEST_F(SetupConsole, LooksForAPackageOnlyInsideItsApplication) {
  const auto contents = folder.path() / "TavroInstaller.app" / "Contents";
  const auto program = contents / "MacOS" / "tavro-install-gui";
  EXPECT_EQ(macos_installer_package(contents / "MacOS/tavro-install"), "");
  EXPECT_EQ(macos_installer_package("/other.app/Contents/MacOS/tavro-install-gui"), "");
  EXPECT_EQ(adjacent_initial_package(program), "");
  std::filesystem::create_directories(contents / "Resources/initial-package");
  EXPECT_EQ(adjacent_initial_package(program), contents / "Resources/initial-package");
}

TEST_F(SetupConsole, FailsWhereItsAnswerDoesNotArrive) {
  for (const Arguments& line : {Arguments{"status"}, {"status", "--json"}, {"--help"}}) {
    std::cout.setstate(std::ios::badbit);
    const Outcome lost = run(line);
    std::cout.clear();
    EXPECT_EQ(lost.status, 1);
    EXPECT_THAT(lost.errors, testing::HasSubstr("cannot be written to standard output"));
  }
}

// What the real installer says of these is told where it runs.
TEST_F(SetupConsole, SumsUpInOneSentenceUnderABrand) {
  using Kind = SetupCommandKind;
  const std::tuple<Kind, std::string, std::string> rows[] = {
      {Kind::install,
       R"({"repaired":false,"replaced":[],"data_root":"/T","shortcut_problem":"No disk"})",
       "Installed Fox in /T. The shortcut could not be created: No disk"},
      {Kind::status, R"({"incomplete":true,"installed":true,"data_root":"/T"})",
       "Fox setup did not finish in /T; run repair."},
      {Kind::status,
       R"({"incomplete":false,"installed":true,"data_root":"/T","launcher_build":"",)"
       R"("bootstrap_build":"b1","bootstrap_update_pending":true})",
       "Fox is installed in /T (bootstrap b1, launcher not started yet). A Fox update is applied "
       "on the next start."},
      {Kind::uninstall, R"({"data_root":"/T","kept":["a"],"changed_shortcuts":["b"]})",
       "Removed Fox from /T. Saves and settings were kept. Changed shortcuts were left in place."},
      {Kind::shortcut_remove, R"({"removed":["a","b"]})", "Removed 2 shortcut(s)."},
      {Kind::shortcut_create, R"({"created":"/a"})", "Created /a."},
      {Kind::shortcut_create, R"({"created":"/a","existing":true})", "It was there already: /a."},
  };
  set_product_name("Fox");
  SetupCommand command;
  for (const auto& [kind, document, sentence] : rows) {
    command.kind = kind;
    EXPECT_EQ(setup_summary(command, json::parse(document)), sentence);
  }
}

}  // namespace tavro::setup_console_test
