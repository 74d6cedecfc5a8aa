// The real installer, struck at every point of its work: by SIGKILL, by Ctrl+C, by a second
// installer and by a full disk.

#include <sys/mount.h>

#include <csignal>
#include <cstring>
#include <memory>

#include "system/installer_program.h"

namespace tavro::installer_faults_test {

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
  std::string name, command;
  std::function<void(Struck&)> prepare;
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
    std::vector<std::string> words = {GetParam().command};
    if (!uninstalls()) words.insert(words.end(), {"--package", world.package.folder});
    return world.run(words, world.struck(signal, call));
  }

  static bool uninstalls() { return GetParam().command == "uninstall"; }

  Struck world{package_of(1, 100)};
  bool was_installed = false, had_save = false;
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

/// Every signal that ends a program from outside takes the same way out.
TEST_P(Strike, ByCtrlCUndoesOrCompletesTheRun) {
  constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
  int stopped = 0, recorded = 0;
  for (long call = 1;; call += stride) {
    SCOPED_TRACE(call);
    const Ending ended = strike(signals[call / stride % 4], call);
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
      EXPECT_EQ(world.record_stands(), !uninstalls());
      if (call > world.calls()) break;
    }
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(stopped, 0);
  EXPECT_TRUE(recorded > 0 || GetParam().name != "repair");
}

const Operation operations[] = {
    {"install", "install", [](Struck&) {}},
    {"install_beside_saves", "install", [](Struck& w) { w.play(); }},
    {"repair", "repair", [](Struck& w) { w.play(), w.install(), w.damage(); }},
    {"uninstall", "uninstall", [](Struck& w) { w.install(), w.play(); }}};
INSTANTIATE_TEST_SUITE_P(At, Strike, testing::ValuesIn(operations),
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

TEST(ManyInstallers, LetOneInstallAndTellTheOthersSo) {
  Struck world(package_of(1, 100));
  const std::vector<std::string> words = {"install",    "--package", world.package.folder,
                                          "--data-dir", world.root,  "--json"};
  for (int round = 0; round < 8; ++round) {
    fs::remove_all(world.root);
    std::vector<std::unique_ptr<Started>> all;
    for (int each = 0; each < 6; ++each) all.emplace_back(new Started(world.start(words)));
    int installed = 0;
    for (const auto& each : all) {
      const Ending ended = each->wait();
      installed += ended.status == 0;
      EXPECT_THAT(ended.code(), AnyOf("", "busy", "already_installed")) << ended.errors;
    }
    EXPECT_EQ(installed, 1);
  }
}

TEST(FullDisk, FailsInWordsAndLosesNothing) {
  Struck world(package_of(3, 60000));
  const fs::path at = world.folder.path() / "disk", ballast = at / "ballast";
  fs::create_directory(at);
  world.root = at / "data";
  int failures = 0;
  bool full = true;
  for (std::size_t bytes = 32768; full && !HasFailure(); bytes += 131072) {
    const std::string size = "mode=700,size=" + std::to_string(bytes);
    if (mount("tmpfs", at.c_str(), "tmpfs", 0, size.c_str()) != 0)
      GTEST_SKIP() << "cannot mount a small disk: " << std::strerror(errno);
    const auto before = fs::space(at).free;
    const Ending ended = world.install();
    full = ended.status != 0;
    if (full) {
      ++failures;
      EXPECT_TRUE(ended.status == 1 && !ended.errors.empty()) << size;
      EXPECT_TRUE(!fs::exists(world.root) && fs::space(at).free == before) << size;
    } else {
      world.play(), world.damage();
      for (std::ofstream file(ballast); file << std::string(4096, 'x') << std::flush;) continue;
      EXPECT_EQ(world.repair().status, 1);
      EXPECT_TRUE(fs::exists(world.save()));
      fs::remove(ballast);
      world.recover();
    }
    umount2(at.c_str(), MNT_DETACH);
  }
  EXPECT_GT(failures, 3);
}

}  // namespace tavro::installer_faults_test
