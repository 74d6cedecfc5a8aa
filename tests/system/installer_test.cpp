// What a user meets: the real programs, from the command line to the exit status.

#include "support/installation.h"
#include "system/installer_program.h"

namespace tavro::installer_test {

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

  put_file(world.root / "userdata/save.dat", "progress");
  put_file(world.root / "native/bootstrap/bin/tavro-bootstrap", "damage");
  EXPECT_EQ(json::parse(world.repair().output)["replaced"], json({"bootstrap"}));
  EXPECT_EQ(text_of(say({"uninstall"})),
            "Removed Tavro from " + root + ". Saves and settings were kept.\nRemoving…\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(world.root), {}), 1);

  EXPECT_EQ(world.install().status, 0);
  EXPECT_TRUE(fs::exists(world.root / "userdata/save.dat"));
  EXPECT_EQ(say({"uninstall", "--remove-data"}).output, "Removed Tavro from " + root + ".\n");
  EXPECT_FALSE(fs::exists(world.root));
}

TEST(Programs, NeverRunFromAnUnfinishedFolder) {
  TempFolder folder;
  put_file(folder.path() / ".tavro-native-bundle-incomplete.json", "");
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

}  // namespace tavro::installer_test
