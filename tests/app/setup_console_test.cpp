#include "app/setup_console.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>

#include "app/brand.h"
#include "app/console_report.h"
#include "app/setup_command.h"
#include "app/setup_dispatch.h"
#include "domain/product_name.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

using Arguments = std::vector<std::string>;

struct Outcome {
  int status = 0;
  std::string output;
  std::string errors;
};

Outcome run(const Arguments& arguments, const std::string& program = "tavro-install",
            bool stop = false) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Outcome outcome;
  outcome.status = run_setup_console(arguments, program, "", [&] { return stop; });
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

struct Refused {
  std::string name;
  Arguments arguments;
  std::string message;
  int status = 2;
};

class RefusedLine : public SetupConsole, public testing::WithParamInterface<Refused> {};

TEST_P(RefusedLine, IsToldOnStandardErrorAlone) {
  const Outcome outcome = run(GetParam().arguments);
  EXPECT_EQ(outcome.status, GetParam().status);
  EXPECT_EQ(outcome.errors, GetParam().message + "\n");
  EXPECT_EQ(outcome.output, "");
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, RefusedLine,
    testing::ValuesIn(std::vector<Refused>{
        {"help_does_not_stop_the_parser", {"--help", "--what"}, "Unknown option: --what"},
        {"help_does_not_stop_the_checks",
         {"repair", "--remove-data", "--help"},
         "--remove-data only applies to uninstall"},
        {"no_json_form_yet", {"--json", "-x"}, "Unknown option: -x"},
        {"lone_dash", {"-"}, "Unknown option: -"},
        {"two_commands", {"install", "repair"}, "Choose one command"},
        {"second_word_unread", {"install", "nonsense"}, "Choose one command"},
        {"second_word_empty", {"status", ""}, "Choose one command"},
        {"unknown_word", {"update"}, "Unknown command: update"},
        {"empty_word", {""}, "Unknown command: "},
        {"shortcut_alone", {"shortcut"}, "Use shortcut create or shortcut remove"},
        {"shortcut_takes_any_token",
         {"shortcut", "--json"},
         "Use shortcut create or shortcut remove"},
        {"value_missing", {"status", "--data-dir"}, "Option --data-dir needs a value"},
        {"value_empty", {"--package", ""}, "Option --package needs a value"},
        {"package_for_status",
         {"--package", "x", "status"},
         "--package only applies to install and repair"},
        {"first_check_wins",
         {"status", "--game", "x", "--remove-data", "--package", "x"},
         "--package only applies to install and repair"},
        {"game_for_removal",
         {"shortcut", "remove", "--game", "x"},
         "--game only applies to shortcut create"},
        {"game_identity",
         {"shortcut", "create", "--game", "A_b", "--json"},
         "Game and build IDs use lower-case letters, digits, dots and hyphens",
         1},
        {"no_package", {}, "Choose the initial package with --package DIR"},
    }),
    [](const auto& row) { return row.param.name; });

TEST(SetupCommandLine, TakesOptionsAnywhereAndTheLastOneWins) {
  const SetupCommand command = parse_setup_command(
      {"--data-dir", "/a", "--json", "uninstall", "--remove-data", "--data-dir", "--json"}, "/d");
  EXPECT_EQ(command.kind, SetupCommandKind::uninstall);
  EXPECT_EQ(command.data_root, "--json");
  EXPECT_TRUE(command.data_root_chosen && command.remove_data && command.json && !command.help);

  const SetupCommand plain = parse_setup_command({}, "/d");
  EXPECT_EQ(plain.kind, SetupCommandKind::install);
  EXPECT_EQ(plain.data_root, "/d");
  EXPECT_FALSE(plain.data_root_chosen);
}

TEST_F(SetupConsole, TellsOnlyTheInstallerHowToInstall) {
  const Outcome help = run({"-h"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output,
            "Usage: tavro-install [COMMAND] [--data-dir DIR] [--json]\n\nCommands:\n"
            "  install [--package DIR]   Install Tavro (the default command)\n"
            "  repair [--package DIR]    Replace damaged Tavro files; keeps games, saves and "
            "settings\n"
            "  status                    Show what is installed\n"
            "  uninstall [--remove-data] Remove Tavro and its games; saves and settings stay\n"
            "                            unless --remove-data is given\n"
            "  shortcut create [--game ID] | shortcut remove\n");
  const Outcome other = run({"--help"}, "tavro");
  EXPECT_THAT(other.output, testing::StartsWith("Usage: tavro [COMMAND]"));
  EXPECT_THAT(other.output, testing::Not(testing::HasSubstr("[--package DIR]")));

  const Outcome refused = run({}, "tavro");
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.errors, "Use the Tavro installer to install or repair Tavro\n");
}

TEST_F(SetupConsole, AnswersInTheFormThatWasAskedFor) {
  const std::string root = (folder.path() / "Tavro").string();
  EXPECT_EQ(run({"status"}).output, "Tavro is not installed in " + root + ".\n");
  EXPECT_EQ(run({"status", "--json"}).output,
            R"({"bootstrap_build":"","bootstrap_update_pending":false,"data_root":")" + root +
                R"(","incomplete":false,"installed":false,"last_operation":null,)"
                R"("launcher_build":"","schema_version":1,"shortcuts":[]})"
                "\n");
  const Outcome refused = run({"uninstall", "--json"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output,
            R"({"problem":{"code":"not_installed","message":"Tavro is not installed in )" + root +
                R"("},"schema_version":1})"
                "\n");
  EXPECT_EQ(refused.errors, "Tavro is not installed in " + root + "\n");
  EXPECT_FALSE(std::filesystem::exists(root));
}

TEST_F(SetupConsole, SurvivesAPathThatIsNoText) {
  const Outcome status = run({"status", "--json", "--data-dir", folder.path() / "\xff"});
  EXPECT_EQ(status.status, 0);
  EXPECT_THAT(status.output, testing::HasSubstr("\xEF\xBF\xBD"));
  EXPECT_EQ(run({"uninstall", "--json", "--data-dir", folder.path() / "\xff"}).status, 1);
}

TEST_F(SetupConsole, StopsWithItsOwnStatus) {
  std::ofstream(folder.path() / ".tavro-setup-incomplete") << "{}";
  const Outcome stopped = run({"uninstall", "--data-dir", folder.path()}, "tavro-install", true);
  EXPECT_EQ(stopped.status, 4);
  EXPECT_EQ(stopped.errors, "Setup was cancelled\n");
  EXPECT_TRUE(std::filesystem::exists(folder.path() / ".tavro-setup-incomplete"));
}

TEST_F(SetupConsole, ShowsEachPhaseOnce) {
  testing::internal::CaptureStderr();
  const NativeSetupCallbacks shown = console_callbacks(false, [] { return true; });
  for (const char* phase : {"verifying", "verifying", "installing", "installing", "removing"})
    shown.progress(phase, 1, 2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Verifying…\nInstalling…\nRemoving…\n");
  EXPECT_TRUE(shown.cancelled());
  EXPECT_FALSE(console_callbacks(true, {}).progress);
}

TEST_F(SetupConsole, FindsTheUserFolderInTheEnvironment) {
  EXPECT_EQ(default_install_folder(Brand{"Blue Fox", "fox", "Fox", false}),
            folder.path() / "Blue Fox");
  setenv("XDG_DATA_HOME", "relative", 1);
  const std::string home = std::getenv("HOME") == nullptr ? "/" : std::getenv("HOME");
  setenv("HOME", "/home/player", 1);
  EXPECT_EQ(user_data_root(), "/home/player/.local/share/Tavro");
  setenv("HOME", "player", 1);
  const Outcome refused = run({"--help", "--json"});
  setenv("HOME", home.c_str(), 1);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "");
  EXPECT_EQ(refused.errors, "HOME must identify an absolute user directory\n");
}

TEST_F(SetupConsole, LooksForAPackageOnlyInsideItsApplication) {
  const auto contents = folder.path() / "TavroInstaller.app" / "Contents";
  const auto program = contents / "MacOS" / "tavro-install-gui";
  EXPECT_EQ(macos_installer_package(program), contents / "Resources/initial-package");
  EXPECT_EQ(macos_installer_package(contents / "MacOS/tavro-install"), "");
  EXPECT_EQ(macos_installer_package("/other.app/Contents/MacOS/tavro-install-gui"), "");
  EXPECT_EQ(adjacent_initial_package(program), "");
  std::filesystem::create_directories(contents / "Resources/initial-package");
  EXPECT_EQ(adjacent_initial_package(program), contents / "Resources/initial-package");
}

TEST(SetupExitStatus, FollowsTheCodeAlone) {
  EXPECT_EQ(exit_code(Error("usage", "")), 2);
  EXPECT_EQ(exit_code(Error("cancelled", "")), 4);
  EXPECT_EQ(exit_code(Error("busy", "")), 1);
}

struct Summary {
  std::string name;
  SetupCommandKind kind;
  std::string document;
  std::string sentence;
};

class SetupSummary : public SetupConsole, public testing::WithParamInterface<Summary> {};

TEST_P(SetupSummary, ReadsAsOneSentenceUnderABrand) {
  set_product_name("Fox");
  SetupCommand command;
  command.kind = GetParam().kind;
  EXPECT_EQ(setup_summary(command, json::parse(GetParam().document)), GetParam().sentence);
}

INSTANTIATE_TEST_SUITE_P(
    Documents, SetupSummary,
    testing::ValuesIn(std::vector<Summary>{
        {"install", SetupCommandKind::install,
         R"({"repaired":false,"replaced":[],"data_root":"/Tavro","shortcut_problem":"No disk"})",
         "Installed Fox in /Tavro. The shortcut could not be created: No disk"},
        {"repair", SetupCommandKind::repair,
         R"({"repaired":true,"replaced":[],"data_root":"/Tavro","shortcut_problem":null})",
         "Repaired Fox in /Tavro. Everything was already intact."},
        {"repair_with_work", SetupCommandKind::repair,
         R"({"repaired":true,"replaced":["trust"],"data_root":"/Tavro","shortcut_problem":null})",
         "Repaired Fox in /Tavro."},
        {"unfinished", SetupCommandKind::status,
         R"({"incomplete":true,"installed":true,"data_root":"/Tavro"})",
         "Fox setup did not finish in /Tavro; run repair."},
        {"not_started", SetupCommandKind::status,
         R"({"incomplete":false,"installed":true,"data_root":"/Tavro","bootstrap_build":"b1",
             "launcher_build":"","bootstrap_update_pending":false})",
         "Fox is installed in /Tavro (bootstrap b1, launcher not started yet)."},
        {"update_waits", SetupCommandKind::status,
         R"({"incomplete":false,"installed":true,"data_root":"/Tavro","bootstrap_build":"b1",
             "launcher_build":"l2","bootstrap_update_pending":true})",
         "Fox is installed in /Tavro (bootstrap b1, launcher l2). A Fox update is applied on the "
         "next start."},
        {"uninstall", SetupCommandKind::uninstall,
         R"({"data_root":"/Tavro","kept":["a"],"changed_shortcuts":["b"]})",
         "Removed Fox from /Tavro. Saves and settings were kept. Changed shortcuts were left in "
         "place."},
        {"created", SetupCommandKind::shortcut_create, R"({"created":"/Tavro.desktop"})",
         "Created /Tavro.desktop."},
        {"removed", SetupCommandKind::shortcut_remove, R"({"removed":["a","b"],"changed":[]})",
         "Removed 2 shortcut(s)."},
    }),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tavro
