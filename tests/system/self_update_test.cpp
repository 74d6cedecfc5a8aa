// The bootstrap that replaces itself: real images, ended anywhere and then started as a user does.
// The next start is always the image that stands; a bad one is bad whoever starts it.

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>

#include "installation/bootstrap_paths.h"
#include "platform/host/native_platform.h"
#include "publisher/descriptors.h"
#include "self_update/bootstrap_update.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/launched.h"
#include "support/snapshot_archive.h"
#include "system/installer_program.h"

namespace tavro::self_update_test {

using namespace testing;
using Files = std::map<std::string, std::string>;

const std::string entry = "bin/tavro-bootstrap", shell = "#!/bin/sh\n";
const std::string only_in_place = shell + "case $0 in */bootstrap-update/*) exit 0;; esac\n";

SealedPackageOptions real_programs() {
  SealedPackageOptions options;
  options.bootstrap_image = program("tavro-bootstrap");
  options.launcher_image = program("ill-behaved-launcher");
  return options;
}

class SelfUpdate : public Test {
 protected:
  SelfUpdate() {
    client.install();
    EXPECT_EQ(Launched(image, "attach interrupt health exit:3", {}).status(), 3);
    before = tree_content(paths.installed);
  }

  /// Lets a release with this entry point wait.
  void stage(const std::string& content) {
    after = {{entry, content}, {"share/added", "new"}, {"share/part-0/file-0.bin", "new"}};
    for (const auto& [path, text] : after)
      write_tree({{path, text, path == entry ? mode_t{0755} : mode_t{0644}}}, paths.update);
    const SourceTree tree(paths.update);
    const auto archive = client.folder.path() / random_id();
    const std::string platform(native_platform());
    const auto document = bootstrap_document(snapshot_document(
        tree, {"2", platform, entry, "a.zst"}, write_archive(tree, archive, {1, 1}, {})));
    fs::permissions(paths.update, fs::perms::owner_all);
    put_file(paths.pending, document.dump());
    copy_tree(native, start);
  }
  /// As it was staged. Programs are shared with the copy, since nothing writes into them.
  void restore() const {
    fs::remove_all(native);
    fs::copy(start, native, fs::copy_options::recursive | fs::copy_options::create_hard_links);
    for (const auto& document : children(start)) {
      if (!fs::is_regular_file(document)) continue;
      fs::remove(native / document.filename());
      fs::copy_file(document, native / document.filename());
    }
  }
  Launched run(const Launched::Environment& environment = {}) const {
    return {image, "who exit:7", environment};
  }
  /// A start that works; what it says before its launcher does.
  std::string works() const {
    auto started = run();
    std::string said = started.rest();
    EXPECT_EQ(started.status(), 7) << said;
    EXPECT_TRUE(said.ends_with("1.0.0\n")) << said;
    return said.substr(0, said.size() - std::min<std::size_t>(said.size(), 6));
  }
  void expect_settled(const Files& files) const {
    EXPECT_TRUE(tree_content(paths.installed) == files);
    for (const auto& gone : {paths.pending, paths.update, paths.old_files})
      EXPECT_FALSE(stands(gone)) << gone;
  }

  Installation client{real_programs()};
  const BootstrapPaths paths{client.paths.root};
  const fs::path native = client.paths.native, start = client.folder.path() / "start",
                 image = paths.installed / entry;
  Files before, after;
};

TEST_F(SelfUpdate, LeavesAClientThatStartsWhereverARunIsKilled) {
  int lost = 0;
  for (const auto& content :
       {before.at(entry) + "\n", shell + "exit 1\n", only_in_place + "exit 1\n"}) {
    fs::remove_all(paths.update);
    stage(content);
    const auto die_at = [&](int call) {
      SCOPED_TRACE(content.substr(0, 60) + " call " + std::to_string(call));
      restore();
      auto struck = run({{"LD_PRELOAD", program("libsignal_at_call.so")},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                         {"TAVRO_TEST_SIGNAL", std::to_string(SIGKILL)},
                         {"TAVRO_TEST_CALL", std::to_string(call)}});
      struck.rest();
      const int status = struck.status();
      // An image that starts everywhere but in place stands there while it is tested a second time.
      if (content.starts_with(only_in_place) && read_file(image, 256U << 20) == content)
        return ++lost, true;
      works();
      if (bootstrap_update_pending(paths.root) || stands(paths.old_files)) works();
      expect_settled(content.starts_with(shell) ? before : after);
      return status == 128 + SIGKILL && !HasFailure();
    };
    // The last one takes the longest, and differs from the others only where it is lost.
    int call = 1;
    while (die_at(call)) call += content.starts_with(only_in_place) ? 5 : process_stride;
    EXPECT_GT(call, 60);
    copy_tree(start, native);
  }
  EXPECT_LT(lost, 20);
}

TEST_F(SelfUpdate, SaysWhatItWaitsForAndHearsASignalOnceTheTreeIsWhole) {
  const auto tested = HasSubstr("update is being tested");
  for (const auto& where : {shell, only_in_place}) {
    const bool in_place = where == only_in_place;
    fs::remove_all(paths.update);
    stage(where + "exec sleep 60\n");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
      (void)std::signal(signal, SIG_DFL);  // also where tests run in the background
      auto stopped = run();
      EXPECT_THAT(stopped.line(), tested);
      EXPECT_EQ(read_file(image, 256U << 20) == after.at(entry), in_place);
      // Who starts while nothing has moved gets a launcher at once.
      if (!in_place) {
        EXPECT_EQ(works(), "");
      }
      kill(stopped.id(), signal);
      stopped.rest();
      EXPECT_EQ(stopped.status(), 128 + signal);
      EXPECT_TRUE(tree_content(paths.installed) == before && bootstrap_update_pending(paths.root));
    }
  }
  // Who starts while the files have moved waits for the end of the test.
  auto first = run();
  EXPECT_THAT(first.line(), tested);
  EXPECT_TRUE(bootstrap_lifetime(image));
  EXPECT_THAT(first.rest(),
              AllOf(HasSubstr("build 2 does not start on this machine"), EndsWith("1.0.0\n")));
  EXPECT_EQ(first.status(), 7);
  expect_settled(before);
}

TEST_F(SelfUpdate, LeadsOutOfEverythingThatStandsInTheWayOfAnUpdate) {
  stage(before.at(entry) + "\n");
  const auto folder = [](const fs::path& path) { fs::remove(path), fs::create_directory(path); };
  const auto link = [](const fs::path& path) {
    fs::remove(path), fs::create_symlink("/nowhere", path);
  };
  struct Row {
    fs::path file;
    std::function<void(const fs::path&)> damage;
    bool given_up = false;
  };
  const std::vector<Row> rows = {
      {paths.pending, [](const auto& path) { put_file(path, "{"); }, true},
      {paths.update / "share/added", [](const auto& path) { fs::remove(path); }, true},
      {paths.update / "share/added",
       [](const auto& path) { fs::remove(path), put_file(path, "neW"); }, true},
      {paths.pending, [](const auto& path) { put_file(path, std::string(600000, ' ')); }},
      {paths.pending, folder},
      {paths.pending, link},
      {paths.lock, folder},
      {paths.lock, link},
      {paths.lock, [](const auto& path) { put_file(path, "x"); }},
      {paths.lock, [](const auto& path) { fs::permissions(path, fs::perms(0644)); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows.data());
    restore();
    if (!stands(paths.lock)) put_file(paths.lock, "");
    fs::permissions(paths.lock, fs::perms(0600));
    row.damage(row.file);
    EXPECT_TRUE(bootstrap_update_pending(paths.root));
    const auto told = client.status().bootstrap_update_problem;
    // A content of the right length is only looked at by the start.
    if (row.file != paths.update / "share/added" || !stands(row.file)) {
      EXPECT_THAT(told, HasSubstr(row.file));
    }
    const auto said = works();
    EXPECT_THAT(said,
                AllOf(HasSubstr(row.file), HasSubstr(row.given_up ? "given up" : "remove it")));
    if (row.given_up) {
      expect_settled(before);
      EXPECT_EQ(works(), "");
      continue;
    }
    EXPECT_EQ(works(), said);
    // What the user is told helps.
    fs::remove(row.file);
    EXPECT_EQ(works(), "");
    if (row.file == paths.lock) expect_settled(after);
  }
}

/// Copies the folder into a file system of its own and uses all its room up.
bool fill_disk(const fs::path& folder) {
  const fs::path small = folder.parent_path() / "small";
  fs::create_directory(small);
  if (mount("tmpfs", small.c_str(), "tmpfs", 0, "size=256m,mode=0700") != 0) return false;
  copy_tree(folder, small / "data");
  std::ofstream rest(small / "rest");
  while (rest << std::string(4096, 'x') << std::flush) continue;
  return mount((small / "data").c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

bool make_read_only(const fs::path& folder) {
  return mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
         mount(nullptr, folder.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

TEST_F(SelfUpdate, CostsNoStartWhereItCannotBeWritten) {
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser mounts";
  stage(before.at(entry) + "\n");
  for (const auto& [limit, why] : {std::pair(&make_read_only, "a volume that is read-only."),
                                   {&fill_disk, "free space and try again."}}) {
    Launched started([&, limited = limit] {
      const bool apart = unshare(CLONE_NEWNS) == 0 &&
                         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
      if (!apart || !limited(paths.root)) return 99;
      setenv("TAVRO_TEST_LAUNCHER", "who exit:7", 1);
      return Launched::become(image, {}, {});
    });
    const auto said = started.rest();
    EXPECT_THAT(said, AllOf(HasSubstr("A Tavro update waits: "), HasSubstr(why)));
    EXPECT_EQ(started.status(), 7) << said;
  }
  works();
  expect_settled(after);
}

}  // namespace tavro::self_update_test
