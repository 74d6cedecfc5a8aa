// The real installer, struck at every point of its work: by SIGKILL, by Ctrl+C, by a second
// installer, by a running client and by a full disk.

#include <sys/mount.h>

#include <csignal>
#include <cstring>

#include "platform/native_lock.h"
#include "system/installer_program.h"

namespace tavro {
namespace {

using testing::AnyOf;

SealedPackageOptions package_of(std::size_t files, std::size_t bytes) {
  SealedPackageOptions options;
  options.bootstrap_files = options.launcher_files = files;
  options.file_bytes = bytes;
  return options;
}

struct Struck : InstallerWorld {
  using InstallerWorld::InstallerWorld;

  bool record_stands() const { return fs::exists(root / "native/installation.json"); }
  fs::path save() const { return root / "userdata/save.dat"; }

  void play() {
    fs::create_directories(save().parent_path());
    std::ofstream(save()) << "progress";
  }

  void damage() { fs::remove(root / "native/bootstrap/bin/tavro-bootstrap"); }

  /// A repair examines every part and says which it had to replace.
  void expect_healthy() {
    const Ending checked = repair();
    EXPECT_EQ(checked.status, 0) << checked.errors;
    EXPECT_THAT(checked.output, testing::HasSubstr(R"("replaced":[])"));
    EXPECT_FALSE(fs::exists(root / "native/staging"));
  }

  /// Goes by what `status` says about the folder that a broken run left, as a user would.
  void recover() {
    const json left = status();
    const bool installed = left["installed"] == true, unfinished = left["incomplete"] == true;
    // No part stands or lacks without the record or the marker that answers for it.
    for (const char* part : {"native/bootstrap", "launcher", "trust"})
      EXPECT_TRUE(unfinished || fs::exists(root / part) == installed) << part;
    const Ending next = installed || unfinished ? repair() : install();
    EXPECT_EQ(next.status, 0) << next.errors;
    expect_healthy();
  }
};

struct Operation {
  std::string name;
  std::vector<std::string> words;
  std::function<void(Struck&)> prepare;

  friend void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }
};

class Strike : public testing::TestWithParam<Operation> {
 protected:
  /// Every call would take minutes; an odd stride meets each kind of call.
  static constexpr long stride = 11;

  /// The operation with the signal at its `call`th call, from a folder in its first state.
  Ending strike(int signal, long call) {
    fs::remove_all(world.root);
    GetParam().prepare(world);
    was_installed = world.record_stands();
    had_save = fs::exists(world.save());
    auto words = GetParam().words;
    if (words.front() != "uninstall")
      words.insert(words.end(), {"--package", world.package.folder});
    return world.run(words, world.struck(signal, call));
  }

  Struck world{package_of(1, 100)};
  bool was_installed = false;
  bool had_save = false;
};

TEST_P(Strike, ByAKillLeavesAFolderThatTheNextRunCompletes) {
  long call = 1;
  for (;; call += stride) {
    SCOPED_TRACE(call);
    const Ending ended = strike(SIGKILL, call);
    EXPECT_EQ(fs::exists(world.save()), had_save);
    if (ended.status == 0) break;
    ASSERT_EQ(ended.status, 128 + SIGKILL) << ended.errors;
    world.recover();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(call, 60);
}

TEST_P(Strike, ByCtrlCUndoesOrCompletesTheRun) {
  int stopped = 0, recorded = 0;
  for (long call = 1;; call += stride) {
    SCOPED_TRACE(call);
    const Ending ended = strike(SIGINT, call);
    EXPECT_EQ(fs::exists(world.save()), had_save);
    EXPECT_FALSE(fs::exists(world.root / ".tavro-setup-incomplete"));
    if (ended.status == 4) {
      ++stopped;
      recorded += world.status().dump().find("Setup was cancelled") != std::string::npos;
      EXPECT_EQ(ended.code(), "cancelled");
      EXPECT_EQ(world.record_stands(), was_installed);
      EXPECT_EQ(fs::exists(world.root), was_installed || had_save);
      EXPECT_FALSE(fs::exists(world.root / "native/staging"));
      if (had_save && !was_installed) {
        EXPECT_EQ(std::distance(fs::directory_iterator(world.root), {}), 1);
      }
    } else {
      ASSERT_EQ(ended.status, 0) << ended.errors;
      EXPECT_EQ(world.record_stands(), GetParam().words.front() != "uninstall");
      if (call > world.calls()) break;
    }
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(stopped, 0);
  EXPECT_TRUE(recorded > 0 || GetParam().name != "repair");
}

INSTANTIATE_TEST_SUITE_P(At, Strike,
                         testing::ValuesIn(std::vector<Operation>{
                             {"install", {"install"}, [](Struck&) {}},
                             {"install_beside_saves", {"install"}, [](Struck& w) { w.play(); }},
                             {"repair",
                              {"repair"},
                              [](Struck& w) {
                                w.play();
                                w.install();
                                w.damage();
                              }},
                             {"uninstall",
                              {"uninstall"},
                              [](Struck& w) {
                                w.install();
                                w.play();
                              }},
                         }),
                         [](const auto& row) { return row.param.name; });

TEST(TwoInstallers, NeverSpoilEachOthersWork) {
  Struck world(package_of(1, 100));
  const std::vector<std::string> words = {"install",    "--package", world.package.folder,
                                          "--data-dir", world.root,  "--json"};
  int refused = 0;
  for (long call = 1;; call += 21) {
    SCOPED_TRACE(call);
    fs::remove_all(world.root);
    Started first = world.start(words, world.struck(SIGSTOP, call));
    if (!first.wait_stopped()) break;
    const Ending second = world.install();
    first.send(SIGCONT);
    const Ending ended = first.wait();
    EXPECT_TRUE(ended.status == 0 || second.status == 0) << ended.errors << second.errors;
    for (const Ending& each : {ended, second})
      EXPECT_THAT(each.code(), AnyOf("", "busy", "already_installed")) << each.errors;
    refused += second.code() == "busy";
    world.expect_healthy();
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(refused, 3);
}

TEST(RunningClient, HoldsOffRepairAndRemoval) {
  Struck world(package_of(1, 100));
  ASSERT_EQ(world.install().status, 0);
  const fs::path lease = world.root / "launcher/leases/versions" / (std::string(64, 'a') + ".lock");
  {
    const FileLock running(lease, false, LockMode::shared);
    const Ending refused = world.repair();
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.code(), "tavro_running");
    // An uninstall waits for the client, asking every 100 ms; so its 30th call stands in that wait.
    const Ending stopped = world.run({"uninstall"}, world.struck(SIGINT, 30));
    EXPECT_EQ(stopped.code(), "cancelled");
  }
  world.expect_healthy();
}

/// A file system of this size in memory at a folder of the test.
class SmallDisk {
 public:
  SmallDisk(fs::path at, std::size_t bytes) : at_(std::move(at)) {
    fs::create_directories(at_);
    const std::string size = "mode=700,size=" + std::to_string(bytes);
    mounted_ = mount("tmpfs", at_.c_str(), "tmpfs", 0, size.c_str()) == 0;
  }
  ~SmallDisk() {
    if (mounted_) umount2(at_.c_str(), MNT_DETACH);
  }
  SmallDisk(SmallDisk&&) = delete;

  bool mounted() const { return mounted_; }
  std::uintmax_t free() const { return fs::space(at_).free; }
  fs::path fill() const {
    const fs::path ballast = at_ / "ballast";
    std::ofstream file(ballast, std::ios::binary);
    for (const std::string block(4096, 'x'); file.write(block.data(), 4096).flush();) continue;
    return ballast;
  }

 private:
  fs::path at_;
  bool mounted_ = false;
};

TEST(FullDisk, FailsInWordsAndLosesNothing) {
  Struck world(package_of(3, 60000));
  const fs::path at = world.folder.path() / "disk";
  world.root = at / "data";
  int failures = 0;
  for (std::size_t bytes = 32768;; bytes += 131072) {
    SCOPED_TRACE(bytes);
    const SmallDisk disk(at, bytes);
    if (!disk.mounted()) GTEST_SKIP() << "cannot mount a small disk: " << std::strerror(errno);
    const auto before = disk.free();
    const Ending ended = world.install();
    if (ended.status != 0) {
      ++failures;
      EXPECT_EQ(ended.status, 1);
      EXPECT_NE(ended.errors, "");
      EXPECT_FALSE(fs::exists(world.root));
      EXPECT_EQ(disk.free(), before);
      ASSERT_FALSE(HasFailure());
      continue;
    }
    world.play();
    world.damage();
    const fs::path ballast = disk.fill();
    EXPECT_EQ(world.repair().status, 1);
    EXPECT_TRUE(fs::exists(world.save()));
    fs::remove(ballast);
    world.recover();
    break;
  }
  EXPECT_GT(failures, 3);
}

}  // namespace
}  // namespace tavro
