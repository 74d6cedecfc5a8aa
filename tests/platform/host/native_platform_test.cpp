#include "platform/host/native_platform.h"

#include "support/testing.h"

namespace tavro::native_platform_test {

std::string refused(const fs::path& image) {
  return failure_of([&] { require_complete_native_install_image(image); });
}

TEST(NativePlatform, RefusesImagesBelowUnfinishedFolders) {
  const TempFolder folder;
  const fs::path image = folder.path() / "a/b/image";
  EXPECT_EQ(refused(image), "");
  for (const std::string package : {"native-bundle", "initial-package", "launcher-package"}) {
    const fs::path guard = folder.path() / (".tavro-" + package + "-incomplete.json");
    fs::create_symlink("nowhere", guard);
    EXPECT_TRUE(refused(image).ends_with("unfinished package; it cannot start"));
    fs::remove(guard);
  }
  fs::create_directory(folder.path() / ".tavro-setup-incomplete");
  EXPECT_EQ(refused(image), "native_install_incomplete: Tavro setup did not finish in " +
                                folder.path().string() +
                                ". Run the Tavro installer again to repair it.");
}

}  // namespace tavro::native_platform_test
