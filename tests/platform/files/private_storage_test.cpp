#include "platform/files/private_storage.h"

#include <fcntl.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/fail_nth_call.h"

namespace tavro::posix_files_test {

using posix_files::private_directory, posix_files::require_private_path;

constexpr char access_list[] = "system.posix_acl_access";
constexpr char default_list[] = "system.posix_acl_default";
constexpr unsigned stranger = 54321, nobody = ~0u;
const std::string impure =
    "permissions: Linux private storage must be ordinary, owned and accessible only to this user: ";
const std::string grants =
    "permissions: Existing Linux storage grants another identity access; preserve it: ";

struct PrivateStorage : testing::Test {
  PrivateStorage() { fs::create_directory(at, folder.path()); }

  /// Gives the folder a list of `users` entries for the user and the four that are always there;
  /// false where it cannot be.
  bool list(const char* name, unsigned user, __u16 rights, __u16 others = 0, int users = 1) const {
    const posix_acl_xattr_header header{POSIX_ACL_XATTR_VERSION};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    const auto add = [&](const posix_acl_xattr_entry& entry) {
      bytes.append(reinterpret_cast<const char*>(&entry), sizeof entry);
    };
    add({ACL_USER_OBJ, 7, nobody});
    for (int entry = 0; entry < users; ++entry) add({ACL_USER, rights, user});
    add({ACL_GROUP_OBJ, 0, nobody});
    add({ACL_MASK, 0, nobody});
    add({ACL_OTHER, others, nobody});
    return ::setxattr(at.c_str(), name, bytes.data(), bytes.size(), 0) == 0;
  }
  static bool has(const fs::path& path, const char* name) {
    return ::getxattr(path.c_str(), name, nullptr, 0) > 0;
  }
  static std::string refused(const fs::path& path) {
    return failure_of([&] { private_directory(path); });
  }

  TempFolder folder;
  fs::path at = folder.path() / "at";
};

TEST_F(PrivateStorage, PreservesAListThatLetsSomebodyElseIn) {
  const auto harmless = [&](const char* name) { return list(name, ::geteuid(), 4); };
  const auto unproved = [&] { return failure_of([&] { require_private_path(at, true); }); };
  if (!harmless(access_list)) GTEST_SKIP() << "no access lists on this file system";
  ASSERT_TRUE(list(access_list, stranger, 0, 0, 124));
  EXPECT_EQ(unproved(), "");
  ASSERT_TRUE(list(access_list, stranger, 0, 0, 125));
  EXPECT_EQ(unproved(),
            "permissions: Linux storage ACL exceeds its bound or is invalid: " + at.string());
  ASSERT_TRUE(harmless(access_list) && harmless(default_list));
  EXPECT_EQ(unproved(), "");
  ASSERT_TRUE(list(default_list, stranger, 0, 4));
  EXPECT_EQ(unproved(), grants + at.string());
  ASSERT_TRUE(harmless(default_list) && list(access_list, stranger, 4));
  EXPECT_EQ(unproved(), grants + at.string());
  // Narrowing the mode must not quietly lower the mask under which the list stands.
  fs::permissions(at, fs::perms(0750));
  EXPECT_EQ(refused(at), grants + at.string());
  EXPECT_EQ(fs::status(at).permissions(), fs::perms(0750));
}

TEST_F(PrivateStorage, TakesInheritedListsFromNewNodes) {
  if (!list(default_list, stranger, 7, 5)) GTEST_SKIP();
  const UniqueFd file = posix_files::open(at / "file", O_CREAT | O_RDWR | O_EXCL, 0666);
  fs::create_directory(at / "inner");
  posix_files::secure_new_private(file.get(), false);
  posix_files::secure_new_private(posix_files::open(at / "inner", O_RDONLY).get(), true);
  EXPECT_FALSE(has(at / "inner", default_list) || has(at / "file", access_list));
}

TEST_F(PrivateStorage, ProvesOwnershipModeTypeAndLinks) {
  const fs::path path = at / "file";
  std::ofstream(path) << "x";
  for (const mode_t mode : {0640, 0602, 01600, 04600, 0700}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    EXPECT_FAILURE(require_private_path(path, false), mode == 0700 ? "" : impure + path.string());
  }
  const UniqueFd used = posix_files::open(path, O_RDWR);
  EXPECT_FAILURE(posix_files::secure_new_private(used.get(), false),
                 "permissions: New Linux private storage ownership changed");
  fs::create_hard_link(path, at / "second");
  EXPECT_FAILURE(require_private_path(path, false), impure + path.string());
  const bool given = ::geteuid() == 0 && ::chown(at.c_str(), stranger, stranger) == 0;
  const fs::path foreign = given ? at : "/usr";
  EXPECT_EQ(refused(foreign), impure + foreign.string());
}

TEST_F(PrivateStorage, CreatesAChainOnlyBelowPlainDirectories) {
  private_directory(at / "./a/new/");
  fs::permissions(at, fs::perms(0755));
  private_directory(at);
  EXPECT_EQ(fs::status(at).permissions(), fs::perms(0700));
  fs::create_directory_symlink("a", at / "link");
  ASSERT_TRUE(::geteuid() != 0 || ::lchown((at / "link").c_str(), stranger, stranger) == 0);
  std::ofstream(at / "file") << "x";
  for (const auto* bad : {"link", "link/new", "file", "file/new"})
    EXPECT_EQ(refused(at / bad), "unsafe_path: Linux directory ancestry is missing or linked");
  for (const int error : {EEXIST, ENOSPC}) {
    const FailNthCall strike(1, error, Fault::fail, "mkdirat");
    const std::string told = refused(at / "b");
    EXPECT_EQ(told.substr(0, told.find(':', 40)),
              error == EEXIST ? "unsafe_path: Linux directory ancestry is missing or linked"
                              : "permissions: Cannot reserve a new Linux private directory");
    EXPECT_EQ(told.find((at / "b").string() + ": No space left on device (28); free") != told.npos,
              error == ENOSPC);
  }
  EXPECT_EQ(refused(at / "a/../b"), "unsafe_path: Linux private directory cannot traverse parents");
  fs::path deep = at;
  while (std::distance(deep.begin(), deep.end()) <= 128) deep /= "d";
  private_directory(deep);
  EXPECT_EQ(refused(deep / "d"), "size_limit: Linux directory ancestry exceeds its bound");
}

TEST_F(PrivateStorage, CreatesOneChainHoweverManyAskForIt) {
  std::atomic<int> failed = 0;
  for (int round = 0; round < 25; ++round) {
    std::vector<std::thread> callers(8);
    for (auto& caller : callers)
      caller = std::thread([&, round] {
        if (!code_of([&] { private_directory(at / std::to_string(round) / "a/b"); }).empty())
          ++failed;
      });
    for (auto& caller : callers) caller.join();
  }
  EXPECT_EQ(failed, 0);
}

TEST_F(PrivateStorage, CompletesAChainWhereverItWasStopped) {
  const auto prepare = [&] { fs::remove_all(at / "a"); };
  const auto work = [&] { private_directory(at / "a/b"); };
  for (const auto& [fault, error] :
       {std::pair(Fault::fail, EIO), {Fault::cut, EIO}, {Fault::fail, EINTR}}) {
    std::string calls;
    strike_each_call(fault, error, prepare, work, [&, goes_on = error == EINTR](const Stop& stop) {
      calls += stop.call + " ";
      EXPECT_EQ(stop.code.empty(), goes_on || stop.call.empty());
      work();
      require_private_path(at / "a/b", true);
    });
    EXPECT_EQ(calls, "mkdirat fchmod fsync mkdirat fchmod fsync  ");
  }
}

}  // namespace tavro::posix_files_test
