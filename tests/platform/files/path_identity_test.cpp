#include "platform/files/path_identity.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/testing.h"

namespace tavro::path_identity_test {

using host::NameRules;

/// The system's own answers, with those of another volume where a test puts them.
struct PathIdentity : testing::Test {
  std::string key(const fs::path& path) const {
    return path_identity::key(path, path_identity::LastComponent::directory_or_file, calls);
  }
  /// Without the code and the system's name, which all refusals share.
  std::string refusal(const fs::path& path) const {
    const std::string failure = failure_of([&] { key(path); });
    const auto system = failure.find("Linux ");
    return failure.starts_with("unsafe_path: ") ? failure.substr(system + 6) : failure;
  }

  TempFolder folder;
  const fs::path at = folder.path();
  const host::VolumeCalls& real = host::volume_calls();
  host::VolumeCalls calls = real;
};

TEST_F(PathIdentity, IsThePlaceAndOutlastsItsCreation) {
  const std::string root = path_identity::directory_key(at), absent = key(at / "a/b/c");
  EXPECT_TRUE(root.starts_with("linux-v1/"));
  EXPECT_EQ(absent, root + "/a/b/c");
  fs::create_directories(at / "a/b");
  std::ofstream(at / "a/b/c") << "file";
  EXPECT_EQ(key(at / "x/.././a//b/./c"), absent);
  EXPECT_NE(key(at / "a/b/C"), absent);
  EXPECT_TRUE(path_identity::at_or_below(absent, root) && path_identity::at_or_below(root, root));
  EXPECT_FALSE(path_identity::at_or_below(root + "x", root));
}

TEST_F(PathIdentity, RefusesWhatHasNoPlaceOfItsOwn) {
  // In a folder that others may change, so that a link is not the system's even where root tests.
  fs::permissions(at, fs::perms(0770));
  fs::create_directory_symlink(at, at / "link");
  std::ofstream(at / "file") << "";
  mkfifo((at / "pipe").c_str(), 0600);
  for (const char* name : {"link", "link/below", "file/below", "pipe"})
    EXPECT_EQ(refusal(at / name), "setup ancestry is linked, unavailable or changed") << name;
  EXPECT_EQ(refusal("/proc/sys"),
            "setup control storage requires a local volume of a known file system");
  fs::path deep = at;
  for (int level = 0; level < 257; ++level) deep /= "d";
  EXPECT_EQ(refusal(deep), "setup ancestry exceeds its bound");
}

TEST_F(PathIdentity, ComparesNamesAsTheirFolderDoes) {
  const std::string decomposed = "Cafe\xCC\x81", upper = "CAF\xC3\x89";
  for (const auto rules :
       {NameRules::exact, NameRules::composed, NameRules::folded, NameRules::folded_dotless}) {
    calls.rules = [=](int) { return rules; };
    const std::string wanted = key(at / "Caf\xC3\xA9");
    EXPECT_EQ(key(at / decomposed) == wanted, rules >= NameRules::composed);
    EXPECT_EQ(key(at / upper) == wanted, rules >= NameRules::folded);
    EXPECT_EQ(key(at / (upper + "..")) == wanted, rules == NameRules::folded_dotless);
  }
  EXPECT_NE(key(at / "a\xFF"), key(at / "A\xFF"));
}

TEST_F(PathIdentity, GivesNoKeyForWhatChangesMeanwhile) {
  int round = 0;
  const std::string changed = "setup ancestry or volume changed during inspection";
  calls.identity = [&](int) { return "volume " + std::to_string(++round); };
  EXPECT_EQ(refusal(at / "a"), changed);
  calls.identity = [&](int fd) { return fs::create_directory(at / "b"), real.identity(fd); };
  EXPECT_EQ(refusal(at / "b"), changed);
  calls.mount = [&](int fd) {
    auto mount = real.mount(fd);
    mount->id += std::to_string(++round);
    return mount;
  };
  EXPECT_EQ(refusal(at), "setup volume changed during inspection");
}

TEST_F(PathIdentity, IsTheSameThroughEveryMountOfTheVolume) {
  const fs::path bound = at / "else where\t\\", first = at / "first", second = at / "second";
  for (const auto& path : {at / "data/inner folder", bound, first, second})
    fs::create_directories(path);
  const std::string below = key(at / "data/inner folder/x");
  const auto mounted = [](const fs::path& source, const fs::path& target, unsigned long flags) {
    return mount(source.c_str(), target.c_str(), "tmpfs", flags, nullptr) == 0;
  };
  if (!bind_mount(at / "data/inner folder", bound)) GTEST_SKIP() << "may not mount";
  EXPECT_EQ(key(bound / "x"), below);
  EXPECT_TRUE(mounted("one", first, 0) && mounted("two", second, 0));
  const std::string one = key(first / "x");
  EXPECT_NE(key(second / "x"), one);
  umount2(second.c_str(), MNT_DETACH);
  EXPECT_TRUE(mounted(first, second, MS_BIND));
  EXPECT_EQ(key(second / "x"), one);
  for (const auto& path : {bound, first, second}) umount2(path.c_str(), MNT_DETACH);
}

// The table of mounts does not show the one that holds such a root.
TEST_F(PathIdentity, IsToldInARootThatIsNoMount) {
  if (::geteuid() != 0) GTEST_SKIP() << "only the superuser can enter another root";
  fs::create_directories(at / "proc"), fs::create_directories(at / "data");
  int status = 0;
  if (::fork() == 0) {
    const bool entered = ::unshare(CLONE_NEWNS) == 0 &&
                         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         ::mount("/proc", (at / "proc").c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                         ::chroot(at.c_str()) == 0 && ::chdir("/") == 0;
    std::string first, second;
    const std::string failure = failure_of([&] { first = key("/data/x"), second = key("/data"); });
    if (entered && !failure.empty()) (void)std::fprintf(stderr, "%s\n", failure.c_str());
    ::_exit(!entered ? 2 : path_identity::at_or_below(first, second) && first != second ? 0 : 1);
  }
  ::wait(&status);
  if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "may not enter another root";
  EXPECT_EQ(status, 0);
}

}  // namespace tavro::path_identity_test
