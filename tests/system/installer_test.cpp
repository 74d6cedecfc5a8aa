// What a user meets: the real programs, from the command line to the exit status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fstream>
#include <functional>

#include "system/installer_program.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

void put(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

std::string text_of(const Ending& ending) { return ending.output + ending.errors; }

TEST(InstalledClient, LivesFromInstallToRemoval) {
  InstallerWorld world;
  const std::string root = world.root.string();
  const std::vector<std::string> at = {"--data-dir", root};
  const auto say = [&](std::vector<std::string> words) {
    words.insert(words.end(), at.begin(), at.end());
    return world.start(words).wait();
  };
  const std::string package = world.package.folder.string();

  EXPECT_EQ(say({"status"}).output, "Tavro is not installed in " + root + ".\n");
  const Ending installed = say({"install", "--package", package});
  EXPECT_EQ(installed.status, 0) << installed.errors;
  EXPECT_THAT(installed.output, testing::StartsWith("Installed Tavro in " + root + "."));
  EXPECT_EQ(installed.errors, "Verifying…\nInstalling…\n");
  EXPECT_EQ(say({"status"}).output,
            "Tavro is installed in " + root + " (bootstrap 1.0.0, launcher 1.0.0).\n");
  EXPECT_EQ(text_of(say({"--package", package})),
            "Verifying…\nTavro is already installed in " + root + "; use repair\n");
  EXPECT_EQ(say({"repair", "--package", package}).output,
            "Repaired Tavro in " + root + ". Everything was already intact.\n");

  put(world.root / "userdata/save.dat", "progress");
  put(world.root / "native/bootstrap/bin/tavro-bootstrap", "damage");
  EXPECT_EQ(json::parse(world.repair().output)["replaced"], json({"bootstrap"}));
  EXPECT_EQ(say({"uninstall"}).output,
            "Removed Tavro from " + root + ". Saves and settings were kept.\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(world.root), {}), 1);

  EXPECT_EQ(world.install().status, 0);
  EXPECT_TRUE(fs::exists(world.root / "userdata/save.dat"));
  EXPECT_EQ(say({"uninstall", "--remove-data"}).output, "Removed Tavro from " + root + ".\n");
  EXPECT_FALSE(fs::exists(world.root));
}

struct FolderState {
  std::string name;
  std::function<void(const fs::path& root)> prepare;
  int install_status;
  std::string status_line;  ///< a part of what `status --json` prints
};

class Folder : public testing::TestWithParam<FolderState> {};

TEST_P(Folder, IsReportedAndTakenOrLeft) {
  InstallerWorld world;
  GetParam().prepare(world.root);
  EXPECT_THAT(world.run({"status"}).output, HasSubstr(GetParam().status_line));
  const Ending installed = world.install();
  EXPECT_EQ(installed.status, GetParam().install_status) << installed.errors;
}

INSTANTIATE_TEST_SUITE_P(
    Holds, Folder,
    testing::ValuesIn(std::vector<FolderState>{
        {"nothing", [](const fs::path& root) { fs::create_directory(root); }, 0,
         R"("incomplete":false,"installed":false)"},
        {"foreign_file", [](const fs::path& root) { put(root / "letter.txt", ""); }, 1,
         R"("incomplete":false,"installed":false)"},
        {"earlier_settings",
         [](const fs::path& root) {
           put(root / "letter.txt", "");
           put(root / "settings.json", "{}");
         },
         0, R"("incomplete":false,"installed":false)"},
        {"dangling_marker",
         [](const fs::path& root) {
           fs::create_directories(root / "native");
           fs::create_symlink("nowhere", root / ".tavro-setup-incomplete");
         },
         1, R"("incomplete":true,"installed":false)"},
        {"strange_record",
         [](const fs::path& root) { put(root / "native/installation.json", "{}"); }, 1,
         R"("code":"unsupported_schema")"},
        {"link_in_its_place", [](const fs::path& root) { fs::create_symlink("/tmp", root); }, 1,
         R"("code":"unsafe_path")"},
    }),
    [](const auto& row) { return row.param.name; });

struct Damage {
  std::string name;
  std::function<void(InstallerWorld& world)> harm;
  std::string code;
};

class Package : public testing::TestWithParam<Damage> {};

TEST_P(Package, IsRefusedBeforeAnythingIsWritten) {
  InstallerWorld world;
  GetParam().harm(world);
  const Ending refused = world.install();
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.code(), GetParam().code) << text_of(refused);
  EXPECT_FALSE(fs::exists(world.root));
}

std::function<void(InstallerWorld&)> changed_byte(const std::string& resource) {
  return [resource](InstallerWorld& world) {
    std::fstream file(world.package.path(resource));
    file.seekg(30);
    const char flipped = static_cast<char>(file.get() ^ 1);
    file.seekp(30);
    file.put(flipped);
  };
}

INSTANTIATE_TEST_SUITE_P(
    With, Package,
    testing::ValuesIn(std::vector<Damage>{
        {"changed_descriptor", changed_byte("descriptor"), "native_install_trust"},
        {"changed_root", changed_byte("root"), "content_mismatch"},
        {"changed_manifest", changed_byte("launcher_manifest"), "content_mismatch"},
        {"changed_archive", changed_byte("bootstrap_archive"), "content_mismatch"},
        {"cut_archive",
         [](InstallerWorld& world) { fs::resize_file(world.package.path("launcher_archive"), 9); },
         "content_mismatch"},
        {"lost_archive",
         [](InstallerWorld& world) { fs::remove(world.package.path("launcher_archive")); },
         "invalid_native_package"},
        {"stray_link",
         [](InstallerWorld& world) {
           fs::create_symlink("root.json", world.package.folder / "more");
         },
         "invalid_native_package"},
        {"other_seal", [](InstallerWorld& world) { world.seal = std::string(64, 'a'); },
         "native_install_trust"},
        {"upper_case_seal", [](InstallerWorld& world) { world.seal = std::string(64, 'A'); },
         "native_install_trust"},
        {"no_seal", [](InstallerWorld& world) { world.seal.clear(); }, "native_install_trust"},
        {"data_folder_inside",
         [](InstallerWorld& world) { world.root = world.package.folder / "data"; }, "unsafe_path"},
    }),
    [](const auto& row) { return row.param.name; });

TEST(Programs, NeverRunFromAnUnfinishedFolder) {
  TempFolder folder;
  put(folder.path() / ".tavro-native-bundle-incomplete.json", "");
  const std::string data = folder.path();
  const std::vector<std::pair<std::string, std::vector<std::string>>> programs = {
      {"tavro-install", {"status"}},
      {"tavro-bootstrap", {"self", "status"}},
      {"example-launcher", {"--data-dir", data, "self", "status"}},
      {"example-launcher-gui", {"--data-dir", data}},
      {"example-launcher-maintenance", {"uninstall", "--data-dir", data}}};
  for (const auto& [name, words] : programs) {
    const fs::path image = folder.path() / "bin" / name;
    fs::create_directories(image.parent_path());
    fs::copy_file(program(name), image);
    const Ending refused = Started(folder.path(), image, words, {}).wait();
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(text_of(refused), "This image belongs to an unfinished package; it cannot start\n");
  }
}

}  // namespace
}  // namespace tavro
