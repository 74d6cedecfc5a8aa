#include "platform/files/durable_files.h"

#include <unistd.h>

#include "platform/files/folder_access.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "support/fail_nth_call.h"

namespace tavro::files_test {

struct Files : testing::Test {
  fs::path put(const fs::path& name) const {
    std::ofstream(at / name) << "old";
    return at / name;
  }
  fs::path link(const fs::path& name, const fs::path& target, uid_t owner = 65534) const {
    fs::create_symlink(target, at / name);
    // Root's own link in root's own folder would be one of the system.
    if (::geteuid() == 0 && ::lchown((at / name).c_str(), owner, owner) != 0) throw name;
    return at / name;
  }
  long entries() const { return std::distance(fs::directory_iterator(at), {}); }

  TempFolder folder;
  fs::path at = folder.path();
};

TEST_F(Files, JoinsWhatHoldsNoLinkAndMayNotExist) {
  fs::create_directory(at / "real");
  link("inside", "real");
  link("real/dangling", "nowhere");
  for (const auto* good : {"real/new/deeper", "absent/too"})
    EXPECT_EQ(safe_join(at, good, true), at / good);
  constexpr char linked[] = "unsafe_path: Managed path contains a symbolic link: ";
  for (const auto& bad : {std::pair("inside", "inside"), std::pair("inside/new", "inside"),
                          std::pair("real/dangling", "real/dangling")})
    EXPECT_FAILURE(safe_join(at, bad.first, true), linked + (at / bad.second).native());
  EXPECT_FAILURE(safe_join(at, "a/../x", false), "unsafe_path: Path contains an unsafe component");
}

TEST_F(Files, NameTheFolderThatIsClosedToTheUser) {
  if (::geteuid() == 0) GTEST_SKIP() << "no folder is closed to the superuser";
  const fs::path closed = at / "closed";
  fs::create_directories(closed / "in");
  fs::permissions(closed, fs::perms::none);
  const std::string told = "permissions: Cannot look into the folder " + closed.native() +
                           ": Permission denied (13); give it to this user alone, with mode 0700, "
                           "and try again";
  EXPECT_FAILURE(safe_join(at, "closed/in/new", true), told);
  EXPECT_FAILURE(folder_entries(closed, 1, ""), told);
  EXPECT_FAILURE(tree_bytes(at, 10), told);
  fs::permissions(closed, fs::perms::owner_all);
}

TEST_F(Files, RefusesATreeWhosePathsWouldNotFit) {
  require_path_room("/", std::string(95, 'd'), 3999);
  for (const std::string& taken : {std::string(96, 'd'), std::string(5000, 'd')})
    EXPECT_EQ(code_of([&] { require_path_room("/", taken, 3999); }), "size_limit");
}

TEST_F(Files, ResolvesTheSystemsLinksAndNoOthers) {
  const auto users = link("users", "real");
  EXPECT_EQ(resolve_system_links(users / "below/../x"), users / "x");
  if (::geteuid() != 0) return;
  link("0", at, 0);
  for (int i = 1; i <= 16; ++i) link(std::to_string(i), std::to_string(i - 1), 0);
  EXPECT_EQ(resolve_system_links(at / "15/x"), at / "x");
  EXPECT_FAILURE(resolve_system_links(at / "16"), "unsafe_path: Too many system links in a path");
  ASSERT_EQ(::chmod(at.c_str(), 0702), 0);
  EXPECT_EQ(resolve_system_links(at / "1"), at / "1") << "others may change the folder";
}

using Calls = std::vector<std::string>;
const struct Form {
  void (*write)(const fs::path&, std::string_view);
  std::string before;
  Calls calls;
} forms[] = {
    {atomic_write, "old", {"open", "fchmod", "write", "fsync", "rename", "fsync"}},
    {atomic_private_create,
     "none",
     {"open", "fchmod", "write", "fsync", "link", "unlink", "fsync"}},
    {atomic_create, "none", {"open", "write", "fsync", "link", "unlink", "fsync"}},
    {replace_private_file, "old", {"open", "fchmod", "write", "rename"}},
};
const struct Round {
  Fault fault;
  int error;
  std::string code;  // of most calls; empty where the write must succeed all the same
} rounds[] = {{Fault::fail, ENOSPC, "insufficient_space"},
              {Fault::fail, EINTR, ""},
              {Fault::cut, EIO, "file_write"},
              {Fault::shorten, 0, ""}};

TEST_F(Files, LeavesOldOrNewWhereverAWriteIsStopped) {
  const fs::path document = at / "document";
  const std::string fresh(100000, 'n');
  const auto sweep = [&](const Form& form, const Round& round) {
    Calls seen;
    const auto prepare = [&] {
      for (const auto& entry : fs::directory_iterator(at)) fs::remove(entry);
      if (form.before == "old") put("document");
    };
    const auto check = [&](const Stop& stop) {
      if (!stop.call.empty()) seen.push_back(stop.call);
      const bool fails = !stop.call.empty() && !round.code.empty();
      const bool last = seen.size() == form.calls.size() && stop.call == "fsync";
      const std::string code = last ? "file_sync" : "permissions";
      EXPECT_EQ(stop.code, !fails ? "" : last || stop.call == "fchmod" ? code : round.code);
      const bool there = fs::exists(document), done = !fails || last || stop.call == "unlink";
      EXPECT_EQ(there ? read_file(document, 100000) : "none", done ? fresh : form.before);
      EXPECT_TRUE(round.fault == Fault::cut || entries() == there);
    };
    const auto work = [&] { form.write(document, fresh); };
    strike_each_call(round.fault, round.error, prepare, work, check);
    // The order is what makes it durable. A shortened write adds the one of its other half.
    EXPECT_TRUE(seen == form.calls || round.error == 0) << testing::PrintToString(seen);
  };
  for (const Form& form : forms)
    for (const Round& round : rounds) sweep(form, round);
}

TEST_F(Files, WritesThroughNoLinkAndOverNothingForeign) {
  const auto target = put("target"), linked = link("link", target), dir = at / "dir";
  EXPECT_FAILURE(atomic_write(linked, ""), "unsafe_path: Refusing to replace a symbolic link");
  fs::create_directory(dir);
  EXPECT_FAILURE(atomic_create(target, ""),
                 "file_write: Cannot create export; the destination may already exist (17)");
  for (const auto& parent : {link("parent", "dir"), target, at / "absent"})
    EXPECT_FAILURE(atomic_create(parent / "x", ""),
                   "unsafe_path: Export parent must be an existing plain directory");
  EXPECT_EQ(entries(), 4);
}

TEST_F(Files, SynchronizesOnlyTheOrdinaryFileThatAPathNames) {
  const auto file = put("file"), linked = link("link", put("other"));
  const FailNthCall failing(1);
  EXPECT_FAILURE(sync_file(file), "file_sync: Could not durably synchronize file");
  EXPECT_EQ(failing.calls(), 1);  // a failed sync is never repeated
  sync_file(file);
  SystemCalls swapping = system_calls();
  swapping.fsync = replace_open_file;
  {
    const SystemCallScope scope(swapping);
    EXPECT_FAILURE(sync_file(file), "file_sync: Synchronized file path changed");
  }
  fs::create_hard_link(file, at / "second");
  for (const auto& bad : {linked, at, at / "absent", file})
    EXPECT_FAILURE(sync_file(bad),
                   "file_sync: Synchronization requires an ordinary single-link file");
}

}  // namespace tavro::files_test
