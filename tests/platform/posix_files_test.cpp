#include "platform/posix_files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fstream>
#include <tuple>

#include "domain/unique_fd.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using posix_files::private_directory, posix_files::require_private_path;

constexpr char access_list[] = "system.posix_acl_access";
constexpr char default_list[] = "system.posix_acl_default";
constexpr unsigned stranger = 54321, none = ~0u;

std::string list_of(__u16 rights, unsigned user, __u16 others = 0) {
  const struct {
    posix_acl_xattr_header header{POSIX_ACL_XATTR_VERSION};
    posix_acl_xattr_entry user_obj{ACL_USER_OBJ, 7, none}, user, group_obj{ACL_GROUP_OBJ, 0, none},
        mask{ACL_MASK, 0, none}, other;
  } list{.user = {ACL_USER, rights, user}, .other = {ACL_OTHER, others, none}};
  return std::string(reinterpret_cast<const char*>(&list), sizeof list);
}

bool set(const fs::path& path, const char* name, const std::string& list) {
  return ::setxattr(path.c_str(), name, list.data(), list.size(), 0) == 0;
}
bool has(const fs::path& path, const char* name) {
  return ::getxattr(path.c_str(), name, nullptr, 0) > 0;
}

const std::string impure =
    "permissions: Linux private storage must be ordinary, owned and accessible only to this user";
const std::string grants =
    "permissions: Existing Linux storage grants another identity access; preserve it";

struct PrivateStorage : testing::Test {
  PrivateStorage() { fs::create_directory(at, folder.path()); }

  TempFolder folder;
  fs::path at = folder.path() / "at";
};

TEST_F(PrivateStorage, PreservesAListThatLetsSomebodyElseIn) {
  const std::string harmless = list_of(4, ::geteuid());
  if (!set(at, access_list, harmless)) GTEST_SKIP() << "no access lists on this file system";
  for (const auto& [name, list, failure] :
       {std::tuple{access_list, list_of(0, stranger), std::string()},
        {access_list, list_of(4, stranger), grants},
        {default_list, harmless, ""},
        {default_list, list_of(0, stranger, 4), grants}}) {
    ASSERT_TRUE(set(at, access_list, harmless) && set(at, name, list));
    EXPECT_EQ(failure_of([&] { require_private_path(at, true); }), failure);
    EXPECT_EQ(failure_of([&] { private_directory(at); }), failure);
    EXPECT_TRUE(has(at, name));
  }
  // Narrowing the mode must not quietly lower the mask under which the list stands.
  fs::permissions(at, fs::perms(0750));
  EXPECT_EQ(failure_of([&] { private_directory(at); }), grants);
  EXPECT_EQ(fs::status(at).permissions(), fs::perms(0750));
}

TEST_F(PrivateStorage, TakesInheritedListsFromNewNodes) {
  if (!set(at, default_list, list_of(7, stranger, 5))) GTEST_SKIP();
  const UniqueFd file(::open((at / "file").c_str(), O_CREAT | O_RDWR | O_EXCL, 0666));
  fs::create_directory(at / "inner");
  const UniqueFd inner(::open((at / "inner").c_str(), O_RDONLY));
  posix_files::secure_new_private(file.get(), false);
  posix_files::secure_new_private(inner.get(), true);
  EXPECT_FALSE(has(at / "inner", default_list) || has(at / "file", access_list));
}

TEST_F(PrivateStorage, ProvesOwnershipModeTypeAndLinks) {
  const fs::path file = at / "file";
  std::ofstream(file) << "x";
  const auto refused = [&] { return failure_of([&] { require_private_path(file, false); }); };
  for (const int mode : {0640, 0602, 01600, 04600, 0700}) {
    ASSERT_EQ(::chmod(file.c_str(), static_cast<mode_t>(mode)), 0);
    EXPECT_EQ(refused(), mode == 0700 ? "" : impure) << mode;
  }
  const UniqueFd used(::open(file.c_str(), O_RDWR));
  EXPECT_EQ(failure_of([&] { posix_files::secure_new_private(used.get(), false); }),
            "permissions: New Linux private storage ownership changed");
  fs::create_hard_link(file, at / "second");
  EXPECT_EQ(refused(), impure);
  EXPECT_EQ(failure_of([&] { require_private_path(file, true); }),
            "permissions: Cannot open ordinary Linux private storage");
  const bool given = ::geteuid() == 0 && ::chown(at.c_str(), stranger, stranger) == 0;
  EXPECT_EQ(failure_of([&] { private_directory(given ? at : "/usr"); }), impure);
}

TEST_F(PrivateStorage, CreatesAChainOnlyBelowPlainDirectories) {
  fs::permissions(at, fs::perms(0755));
  private_directory(at / "./a/");
  fs::permissions(at, fs::perms(0311));  // passable, and not readable
  private_directory(at / "a/new");
  EXPECT_EQ(fs::status(at).permissions(), fs::perms(0311));
  fs::permissions(at, fs::perms(0755));
  private_directory(at);
  EXPECT_EQ(fs::status(at).permissions(), fs::perms(0700));
  fs::create_directory_symlink("a", at / "link");
  ASSERT_TRUE(::geteuid() != 0 || ::lchown((at / "link").c_str(), stranger, stranger) == 0);
  std::ofstream(at / "file") << "x";
  for (const auto* bad : {"link", "link/new", "file", "file/new"})
    EXPECT_EQ(failure_of([&] { private_directory(at / bad); }),
              "unsafe_path: Linux directory ancestry is missing or linked");
  EXPECT_EQ(failure_of([&] { private_directory(at / "a/../b"); }),
            "unsafe_path: Linux private directory cannot traverse parents");
  for (const std::string bad : {"", "/"})
    EXPECT_EQ(failure_of([&] { private_directory(bad); }),
              "unsafe_path: Linux private directory needs a bounded path below a root");
  fs::path deep = at;
  while (std::distance(deep.begin(), deep.end()) <= 128) deep /= "d";
  private_directory(deep);
  EXPECT_EQ(failure_of([&] { private_directory(deep / "d"); }),
            "size_limit: Linux directory ancestry exceeds its bound");
}

TEST_F(PrivateStorage, CompletesAChainWhereverItWasStopped) {
  for (const auto fault : {Fault::fail, Fault::cut}) {
    std::vector<std::string> calls;
    strike_each_call(
        fault, EIO, [&] { fs::remove_all(at / "a"); }, [&] { private_directory(at / "a/b"); },
        [&](const Stop& stop) {
          calls.push_back(stop.call);
          private_directory(at / "a/b");
          require_private_path(at / "a/b", true);
        });
    EXPECT_THAT(calls, testing::ElementsAre("mkdirat", "fchmod", "fsync", "mkdirat", "fchmod",
                                            "fsync", ""));
  }
}

TEST_F(PrivateStorage, ReservesAllOrNothing) {
  const UniqueFd file(::open((at / "file").c_str(), O_CREAT | O_RDWR, 0600));
  const auto reserve = [&](unsigned long long size) {
    const int error = posix_files::reserve(file.get(), size);
    return std::pair(error, fs::file_size(at / "file"));
  };
  EXPECT_EQ(reserve(100000), std::pair(0, 100000ul));
  EXPECT_EQ(reserve(0), std::pair(0, 100000ul));
  const FailNthCall failing(2, ENOSPC);  // shrinking asks for no storage
  EXPECT_EQ(reserve(5000), std::pair(0, 5000ul));
  EXPECT_EQ(reserve(1 << 20), std::pair(ENOSPC, 5000ul));
  EXPECT_EQ(reserve(1ull << 63).first, EFBIG);
}

}  // namespace
}  // namespace tavro
