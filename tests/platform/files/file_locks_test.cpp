#include "platform/files/file_locks.h"

#include <sys/stat.h>

#include "support/fail_nth_call.h"

namespace tavro::native_lock_test {

constexpr auto exclusive = LockMode::exclusive, shared = LockMode::shared;

const std::string busy = "busy: Another Tavro operation is using this state";
const std::string owned = "busy: Another worker owns this native installation";
const std::string unfit = "lock_failed: Native ownership requires an ordinary empty private file";

struct Locks : testing::Test {
  std::string native(bool create = true, LockMode mode = exclusive, int sharing = 0) const {
    return failure_of(
        [&] { NativeFileLock(path, create, static_cast<NativeLockSharing>(sharing), mode); });
  }
  std::string operation(LockMode mode = exclusive) const {
    return failure_of([&] { FileLock(path, false, mode); });
  }

  TempFolder folder;
  fs::path at = folder.path(), path = at / "lock";
  const std::string foreign =
      "lock_failed: Operation lock must be an ordinary private owned file: " + path.string();
};

TEST_F(Locks, ExcludeAsTheirModesSayUntilTheyEnd) {
  for (const auto held : {exclusive, shared})
    for (const auto wanted : {exclusive, shared}) {
      const bool free = held == shared && wanted == shared;
      {
        FileLock first(path, false, held);
        const FileLock moved(std::move(first));
        EXPECT_EQ(operation(wanted), free ? "" : busy);
      }
      const NativeFileLock lock(path, true, NativeLockSharing::none, held);
      EXPECT_EQ(native(true, wanted, 1), free ? "" : owned);
    }
  FileLock(path, false, exclusive).retain_until_process_exit();
  EXPECT_EQ(operation(), busy);
}

TEST_F(Locks, RefuseAFileThatTheyDidNotMake) {
  EXPECT_EQ(native(false), unfit);
  std::ofstream(path) << "content";
  ::chmod(path.c_str(), 0600);
  EXPECT_EQ(operation() + native(), unfit);
  fs::resize_file(path, 0);
  fs::create_hard_link(path, at / "second");
  EXPECT_EQ(operation() + native(), foreign + unfit);
  fs::remove(at / "second");
  for (const mode_t mode : {0644, 0700, 04600}) {
    ::chmod(path.c_str(), mode);
    EXPECT_EQ(operation() + native(), foreign + unfit);
  }
  fs::rename(path, at / "file");
  fs::create_symlink("file", path);
  EXPECT_EQ(operation() + native(), "lock_failed: Cannot open operation lock" + unfit);
}

TEST_F(Locks, OwnOnlyInOrdinaryExistingParents) {
  fs::create_directories(at / "at");
  fs::create_directory_symlink(".", at / "linked");
  ASSERT_TRUE(::geteuid() != 0 || ::lchown((at / "linked").c_str(), 1, 1) == 0);
  for (const auto* bad : {"linked/lock", "linked/at/lock", "absent/lock"}) {
    path = at / bad;
    EXPECT_EQ(native(), "lock_failed: Native ownership requires ordinary existing parents");
  }
}

TEST_F(Locks, TellAPathThatNoLongerNamesThem) {
  const FileLock lock(path, false, shared);
  const NativeFileLock owner(path, false, NativeLockSharing::read, shared);
  const auto matches = [&] { return lock.matches_path(path) + owner.matches_path(path); };
  EXPECT_EQ(matches(), 2);
  fs::rename(path, at / "old");
  fs::create_symlink("old", path);
  EXPECT_EQ(matches(), 0);
  fs::remove(path);
  SystemCalls swapping = system_calls();
  swapping.flock = [](int descriptor, int) { return replace_open_file(descriptor); };
  const SystemCallScope scope(swapping);
  EXPECT_EQ(native(), "lock_failed: Native ownership path changed while locking");
}

TEST_F(Locks, RepeatWhatWasInterruptedAndNothingElse) {
  for (const auto& [error, failure] :
       {std::pair(EINTR, ""),
        {ENOLCK, "lock_failed: Cannot acquire native installation ownership"}}) {
    const FailNthCall failing(1, error, Fault::fail, "flock");
    EXPECT_EQ(native(), failure);
  }
}

}  // namespace tavro::native_lock_test
