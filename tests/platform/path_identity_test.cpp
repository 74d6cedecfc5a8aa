#include "platform/path_identity.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <functional>

#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using host::NameRules;
using path_identity::LastComponent;

/// The system's own answers, with those of another volume where a test puts them.
struct PathIdentity : testing::Test {
  std::string key(const fs::path& path) const {
    return path_identity::key(path, LastComponent::directory_or_file, calls);
  }
  std::string refusal(const fs::path& path) const {
    return failure_of([&] { key(path); });
  }
  void compare_names_by(NameRules rules) {
    calls.rules = [=](int) { return rules; };
  }

  TempFolder folder;
  const fs::path at = folder.path();
  host::VolumeCalls calls = host::volume_calls();
};

TEST_F(PathIdentity, IsThePlaceAndOutlastsItsCreation) {
  const std::string root = path_identity::directory_key(at), absent = key(at / "a/b/c");
  EXPECT_EQ(root.rfind("linux-v1/", 0), 0U);
  EXPECT_EQ(absent, root + "/a/b/c");
  fs::create_directories(at / "a/b");
  std::ofstream(at / "a/b/c") << "file";
  EXPECT_EQ(key(at / "a/b/c"), absent);
  EXPECT_EQ(key(at / "x/.././a//b/./c"), absent);
  EXPECT_NE(key(at / "a/b/C"), absent);
  EXPECT_EQ(code_of([&] { path_identity::directory_key(at / "a/b/c"); }), "unsafe_path");
  EXPECT_TRUE(path_identity::at_or_below(absent, root) && path_identity::at_or_below(root, root));
  EXPECT_FALSE(path_identity::at_or_below(root + "x", root));
}

TEST_F(PathIdentity, RefusesWhatHasNoPlaceOfItsOwn) {
  const std::string linked = "unsafe_path: Linux setup ancestry is linked, unavailable or changed";
  // In a folder that others may change, so that it is not the system's own even where root tests.
  fs::permissions(at, fs::perms(0770));
  fs::create_directory_symlink(at, at / "link");
  std::ofstream(at / "file") << "";
  mkfifo((at / "pipe").c_str(), 0600);
  for (const char* name : {"link", "link/below", "file/below", "pipe"})
    EXPECT_EQ(refusal(at / name), linked) << name;
  EXPECT_EQ(refusal("/proc/sys"),
            "unsafe_path: Linux setup control storage requires a local volume "
            "of a known file system");
  EXPECT_EQ(refusal(std::string(4097, 'a')),
            "unsafe_path: Linux setup needs a bounded ordinary destination");
  fs::path deep = at;
  for (int level = 0; level < 257; ++level) deep /= "d";
  EXPECT_EQ(refusal(deep), "unsafe_path: Linux setup ancestry exceeds its bound");
}

TEST_F(PathIdentity, ComparesNamesAsTheirFolderDoes) {
  const std::string composed = "Caf\xC3\xA9", decomposed = "Cafe\xCC\x81", upper = "CAF\xC3\x89";
  const std::vector<std::tuple<NameRules, bool, bool, bool>> rows = {
      {NameRules::exact, false, false, false},
      {NameRules::composed, true, false, false},
      {NameRules::folded, true, true, false},
      {NameRules::folded_dotless, true, true, true},
  };
  for (const auto& [rules, composition, letter_case, dots] : rows) {
    compare_names_by(rules);
    const std::string wanted = key(at / composed);
    EXPECT_EQ(key(at / decomposed) == wanted, composition);
    EXPECT_EQ(key(at / upper) == wanted, letter_case);
    EXPECT_EQ(key(at / (upper + "..")) == wanted, dots);
  }
  EXPECT_NE(key(at / "a\xFF"), key(at / "A\xFF"));
  calls.name_key = [](std::string_view, NameRules) { return errno = EILSEQ, std::nullopt; };
  EXPECT_EQ(refusal(at), "unsafe_path: Linux setup names must be valid UTF-8");
  calls.name_key = [](std::string_view, NameRules) { return std::string(9000, 'n'); };
  EXPECT_EQ(refusal(at / "x"), "unsafe_path: Normalized Linux setup names exceed their bound");
}

TEST_F(PathIdentity, GivesNoKeyForWhatChangesMeanwhile) {
  const host::VolumeCalls& real = host::volume_calls();
  const std::string changed =
      "unsafe_path: Linux setup ancestry or volume changed during inspection";
  int round = 0;
  calls.identity = [&](int) { return "volume " + std::to_string(++round); };
  EXPECT_EQ(refusal(at / "a"), changed);
  calls.identity = [&](int descriptor) {
    fs::create_directory(at / "b");
    return real.identity(descriptor);
  };
  EXPECT_EQ(refusal(at / "b"), changed);
  calls.identity = [](int) { return ""; };
  EXPECT_EQ(refusal(at),
            "unsafe_path: Cannot identify the Linux setup volume and its case behavior");
  calls.mount = [&](int descriptor) {
    auto mount = real.mount(descriptor);
    mount->id += std::to_string(++round);
    return mount;
  };
  EXPECT_EQ(refusal(at), "unsafe_path: Linux setup volume changed during inspection");
  calls = real;
  calls.physical = [](int) { return "relative"; };
  EXPECT_EQ(refusal(at), "unsafe_path: Linux setup ancestry has no stable physical path");
  calls.physical = real.physical;
  calls.mount = [&](int descriptor) {
    auto mount = real.mount(descriptor);
    mount->root = "/one/../two";
    return mount;
  };
  EXPECT_EQ(refusal(at), "unsafe_path: Unknown Linux volume mount path");
}

/// A mount that goes with the object; `made` is false where this user may not mount.
struct Mounted {
  Mounted(const fs::path& source, fs::path target, unsigned long flags, const char* options = "")
      : at(std::move(target)) {
    fs::create_directories(at);
    made = mount(source.c_str(), at.c_str(), "tmpfs", flags, options) == 0;
  }
  Mounted(const Mounted&) = delete;
  ~Mounted() {
    if (made) umount2(at.c_str(), MNT_DETACH);
  }
  fs::path at;
  bool made = false;
};

TEST_F(PathIdentity, IsTheSameThroughEveryMountOfTheVolume) {
  fs::create_directories(at / "data/inner folder");
  const std::string below = key(at / "data/inner folder/x"), beside = key(at / "other/x");
  const Mounted bound(at / "data/inner folder", at / "elsewhere\t\\", MS_BIND);
  if (!bound.made) GTEST_SKIP() << "may not mount";
  EXPECT_EQ(key(bound.at / "x"), below);
  EXPECT_NE(key(bound.at / "x"), beside);
  const Mounted first("one", at / "first", 0), second("two", at / "second", 0);
  EXPECT_NE(key(first.at / "x"), key(second.at / "x"));
  const std::string before = key(first.at / "x");
  const Mounted again(first.at, at / "again", MS_BIND);
  EXPECT_EQ(key(again.at / "x"), before);
}

}  // namespace
}  // namespace tavro
