#include "platform/files.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <fstream>

#include "domain/input.h"
#include "platform/native_files.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

struct Files : testing::Test {
  fs::path put(const fs::path& name, const std::string& text = "old") const {
    std::ofstream(at / name) << text;
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
  put("file");
  for (const auto* good : {"real/new/deeper", "absent/too", "file/below"})
    EXPECT_EQ(safe_join(at, good, true), at / good);
  for (const auto* linked : {"inside", "inside/new", "real/dangling"})
    EXPECT_EQ(failure_of([&] { safe_join(at, linked, true); }),
              "unsafe_path: Managed path contains a symbolic link");
  EXPECT_EQ(code_of([&] { safe_join(at, "real/../x", false); }), "unsafe_path");
  EXPECT_THROW(safe_join(at / std::string(300, 'x'), "a", true), fs::filesystem_error);
}

TEST_F(Files, RefusesATreeWhosePathsWouldNotFit) {
  require_path_room("/", std::string(95, 'd'), 3999);
  for (const std::size_t taken : {96, 5000})
    EXPECT_EQ(code_of([&] { require_path_room("/", std::string(taken, 'd'), 3999); }),
              "size_limit");
}

TEST_F(Files, ResolvesTheSystemsLinksAndNoOthers) {
  const auto users = link("users", "real");
  EXPECT_EQ(resolve_system_links(users / "below/../x"), users / "x");
  EXPECT_EQ(resolve_system_links("/bin/none"), fs::canonical("/bin") / "none");
  if (::geteuid() != 0) return;
  fs::create_directory(at / "real");
  for (int i = 1; i <= 17; ++i) link(std::to_string(i), i == 1 ? "real" : std::to_string(i - 1), 0);
  EXPECT_EQ(resolve_system_links(at / "16/x"), at / "real/x");
  EXPECT_EQ(failure_of([&] { resolve_system_links(at / "17"); }),
            "unsafe_path: Too many system links in a path");
  fs::permissions(at, fs::perms::owner_all | fs::perms::others_write);
  EXPECT_EQ(resolve_system_links(at / "1"), at / "1");
  fs::permissions(at, fs::perms::owner_all);
  ASSERT_EQ(::chown(at.c_str(), 65534, 65534), 0);
  EXPECT_EQ(resolve_system_links(at / "1"), at / "1");
}

using Calls = std::vector<std::string>;
const struct Form {
  void (*write)(const fs::path&, std::string_view);
  bool replaces;
  Calls calls;
} forms[] = {
    {atomic_write, true, {"open", "fchmod", "write", "fsync", "rename", "fsync"}},
    {atomic_private_create, false, {"open", "fchmod", "write", "fsync", "link", "unlink", "fsync"}},
    {atomic_create, false, {"open", "write", "fsync", "link", "unlink", "fsync"}},
    {replace_private_file, true, {"open", "fchmod", "write", "rename"}},
};

TEST_F(Files, LeavesOldOrNewWhereverAWriteIsStopped) {
  const std::string fresh(100000, 'n');
  for (const Form& form : forms) {
    for (int round = 0; round < 4; ++round) {
      const Fault fault = std::array{Fault::fail, Fault::fail, Fault::cut, Fault::shorten}[round];
      const int error = round == 1 ? ENOSPC : EIO;
      Calls seen;
      const auto prepare = [&] {
        for (const auto& entry : fs::directory_iterator(at)) fs::remove(entry);
        if (form.replaces) put("document");
      };
      const auto check = [&](const Stop& stop) {
        const bool fails = fault != Fault::shorten && !stop.call.empty();
        if (!stop.call.empty()) seen.push_back(stop.call);
        const bool last = seen.size() == form.calls.size() && stop.call == "fsync";
        std::string code = error == ENOSPC ? "insufficient_space" : "file_write";
        if (last || stop.call == "fchmod") code = last ? "file_sync" : "permissions";
        EXPECT_EQ(stop.code, fails ? code : "");
        const bool there = fs::exists(at / "document");
        const std::string before = form.replaces ? "old" : "none";
        EXPECT_EQ(there ? read_file(at / "document", 200000) : "none",
                  !fails || last || stop.call == "unlink" ? fresh : before);
        EXPECT_TRUE(fault == Fault::cut || entries() == (there ? 1 : 0));
      };
      strike_each_call(
          fault, error, prepare, [&] { form.write(at / "document", fresh); }, check);
      // The order is what makes it durable. A shortened write adds the one of its other half.
      EXPECT_TRUE(seen == form.calls || fault == Fault::shorten) << testing::PrintToString(seen);
    }
  }
}

TEST_F(Files, WritesThroughNoLinkAndOverNothingForeign) {
  const auto target = put("target"), linked = link("link", target), dir = at / "dir";
  for (const auto& form : forms)
    EXPECT_EQ(failure_of([&] { form.write(linked, "new"); }),
              "unsafe_path: Refusing to replace a symbolic link");
  fs::create_directory(dir);
  EXPECT_EQ(failure_of([&] { atomic_write(dir, ""); }),
            "file_write: Cannot commit transaction file (21)");
  for (const auto create : {atomic_create, atomic_private_create})
    EXPECT_EQ(failure_of([&] { create(target, "new"); }),
              "file_write: Cannot create export; the destination may already exist (17)");
  for (const auto& parent : {link("parent", "dir"), target, at / "absent"})
    EXPECT_EQ(failure_of([&] { atomic_create(parent / "x", ""); }),
              "unsafe_path: Export parent must be an existing plain directory");
  EXPECT_EQ(entries(), 4);
  EXPECT_EQ(read_file(target, 9), "old");
}

TEST_F(Files, SynchronizesOnlyTheOrdinaryFileThatAPathNames) {
  const auto file = put("file"), linked = link("link", "file");
  const FailNthCall failing(1);
  EXPECT_EQ(failure_of([&] { sync_file(file); }), "file_sync: Could not durably synchronize file");
  EXPECT_EQ(failing.calls(), 1);  // a failed sync is never repeated
  sync_file(file);
  SystemCalls swapping = system_calls();
  swapping.fsync = [](int descriptor) {
    const auto synced = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
    fs::rename(synced, synced.string() + ".old");
    return std::ofstream(synced) ? 0 : -1;
  };
  {
    const SystemCallScope scope(swapping);
    EXPECT_EQ(failure_of([&] { sync_file(file); }), "file_sync: Synchronized file path changed");
  }
  fs::create_hard_link(file, at / "second");
  for (const auto& bad : {linked, at, at / "absent", file})
    EXPECT_EQ(failure_of([&] { sync_file(bad); }),
              "file_sync: Synchronization requires an ordinary single-link file");
}

TEST_F(Files, RemovesOnlySingleEntries) {
  fs::create_directories(at / "full/empty");
  link("link", "full");
  EXPECT_EQ(failure_of([&] { native_files::remove_or_trash(at / "full", {}); }),
            "file_remove: Cannot remove " + (at / "full").string());
  for (const auto* entry : {"link", "full/empty", "full", "absent"})
    EXPECT_TRUE(native_files::remove_or_trash(at / entry, {}));
  EXPECT_EQ(entries(), 0);
}

}  // namespace
}  // namespace tavro
