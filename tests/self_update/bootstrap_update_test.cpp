// The bootstrap's update of itself: signed releases, real images, and runs that end anywhere.

#include "self_update/bootstrap_update.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <set>

#include "platform/host/native_platform.h"
#include "platform/storage/allocated_file.h"
#include "publisher/descriptors.h"
#include "self_update/bootstrap_apply.h"
#include "self_update/bootstrap_release.h"
#include "self_update/bootstrap_staging.h"
#include "self_update/start_check.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"
#include "tuf/trusted_client.h"

namespace tavro::bootstrap_update_test {

using Files = std::map<std::string, std::string>;

const std::string entry = "bin/tavro-bootstrap", shell = "#!/bin/sh\n";
const Files old_release = {{entry, shell},         {"share/changed", "old"}, {"share/gone", "old"},
                           {"share/same", "same"}, {"swap", "a file"},       {"turn/a", "folder"}};

Files new_release(const std::string& image) {
  return {{entry, image},         {"share/added/deep", "new"}, {"share/changed", "new"},
          {"share/same", "same"}, {"swap/b", "folder"},        {"turn", "a file"}};
}

/// Serves targets, which are asked for with a digest before the name.
struct Targets : Transport {
  Files files;
  TransportResponse get(std::string_view, unsigned long long) override { return {404, ""}; }
  void download(std::string_view path, const fs::path& to, unsigned long long size,
                const Progress&) override {
    AllocatedFile file(to, size, {});
    file.write(files.at(std::string(path.substr(path.find('.') + 1))));
    file.finish(false);
  }
};

class BootstrapUpdate : public testing::Test {
 protected:
  BootstrapUpdate() {
    before = release(old_release).dump();
    copy_tree(temp / "tree", paths.installed);
    put_file(installation, "{}");
    put_file(paths.manifest, before);
  }

  json release(const Files& files) {
    const fs::path tree = temp / "tree", archive = temp / "a.zst";
    fs::remove_all(tree), fs::remove(archive);
    for (const auto& [path, text] : files)
      write_tree({{path, text, path == entry ? mode_t{0755} : mode_t{0644}}}, tree);
    const SourceTree source(tree);
    const auto figures = write_archive(source, archive, {1, 1}, {});
    server.files["a.zst"] = read_file(archive, 256U << 20);
    const std::string platform(native_platform());
    return bootstrap_document(snapshot_document(source, {"2", platform, entry, "a.zst"}, figures));
  }
  void publish(const json& descriptor) {
    server.files[bootstrap_manifest_target()] = after = descriptor.dump();
    for (const auto& [name, content] : server.files)
      trusted.repository.add_target(trusted.repository.targets, name, content);
    trusted.repository.publish_update();
  }
  std::string stage() {
    trusted.repository.requests.clear();
    TufClient tuf(trusted.trust, trusted.repository, server, trusted.limits,
                  [&] { return trusted.now; });
    const auto result = stage_bootstrap_update(paths.root, tuf, {});
    EXPECT_EQ(result.staged, result.status == "staged");
    return result.status + result.build_id;
  }
  void apply() { apply_pending_bootstrap_update(image); }
  /// All of one release, and nothing on the way.
  void expect_settled(const Files& files) {
    const bool is_old = files == old_release;
    EXPECT_EQ(tree_content(paths.installed), files);
    EXPECT_EQ(read_file(paths.manifest, 65536), is_old ? before : after);
    std::set<fs::path> kept = {paths.installed, paths.manifest, paths.lock, installation};
    if (is_old) kept.insert(paths.rejected);
    const auto found = children(paths.root / "native");
    EXPECT_EQ(std::set(found.begin(), found.end()), kept);
    EXPECT_TRUE(!is_old || read_file(paths.rejected, 128) == digest(after, "sha256"));
  }

  /// How a process ends that does the work with its Nth call struck: 0 when nothing was.
  static int end_of(const std::function<void()>& work, int nth = 0, Fault fault = Fault::fail) {
    const pid_t child = fork();
    if (child == 0) {
      (void)std::signal(SIGINT, SIG_DFL);  // also where tests run in the background
      const FailNthCall striking(nth, nth % 2 == 0 ? EIO : ENOSPC, fault);
      std::async(std::launch::deferred, work).wait();
      _exit(striking.struck_call().empty() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
  }

  /// Ends the work at each of its calls, and when killed the next start somewhere too; then the
  /// next runs must settle on the release. What was not ended stays.
  int end_everywhere(Fault fault, const Files& settled, const std::function<void()>& work) {
    copy_tree(paths.root, start);
    const int stride = fault == Fault::kill ? process_stride : 1;
    int nth = 1;
    for (; end_of(work, nth, fault) != 0 && !HasFailure();
         nth += stride, copy_tree(start, paths.root)) {
      SCOPED_TRACE("call " + std::to_string(nth));
      if (fault == Fault::kill) end_of([&] { apply(); }, 1 + nth % 11, fault);
      // The old image keeps what it alone may need.
      const std::string standing = read_file(image, 99);
      EXPECT_TRUE(standing == shell ? stands(paths.installed / "share/gone")
                                    : standing.starts_with(shell));
      marked = marked || stands(paths.old_files);
      stage(), apply(), stage();
      expect_settled(settled);
    }
    return nth;
  }

  TrustedClient trusted;
  Targets server;
  const fs::path temp = trusted.folder.path(), start = temp / "start";
  const BootstrapPaths paths{temp / "data"};
  const fs::path image = paths.installed / entry,
                 installation = paths.root / "native/installation.json";
  std::string before, after;
  bool marked = false;
};

TEST_F(BootstrapUpdate, StagesOnlyWhatIsNewAndFitsTheInstallation) {
  trusted.repository.publish_update();
  EXPECT_EQ(stage(), "not_published");
  const json good = release(new_release(shell + "exit 0\n"));
  std::istringstream rows(R"(
/runtime_lease_abi 2|launcher_incompatible: Bootstrap updates require the current native lifetime contract
/application_schema 1|launcher_incompatible: Bootstrap update data contract is missing
/application_schema/further 1|launcher_incompatible: Bootstrap update data contract is unsupported
/platform "macos-aarch64"|launcher_incompatible: Bootstrap update targets another platform
/archive/length 1073741825|size_limit: Bootstrap update exceeds its size limit
/archive/length 1|content_mismatch: Bootstrap archive is not authorized with its declared length and hash
/files/2/path "share/changed.old"|invalid_manifest: Bootstrap update holds a name of replaced files: share/changed.old
/files/2/path "share.old/changed"|invalid_manifest: Bootstrap update holds a name of replaced files: share.old/changed
)");
  for (std::string key, value, failure;
       rows >> key && std::getline(rows, value, '|') && std::getline(rows, failure);) {
    json bad = good;
    bad[json::json_pointer(key)] = json::parse(value);
    publish(bad);
    EXPECT_FAILURE(stage(), failure);
  }
  publish({{"padding", std::string(524288, ' ')}});
  EXPECT_FAILURE(stage(), "size_limit: Bootstrap update manifest exceeds 512 KiB");
  publish(good);
  write_bytes(paths.rejected, digest(after, "sha256"));
  EXPECT_EQ(stage(), "rejected2");
  write_bytes(paths.rejected, digest("another", "sha256"));
  write_bytes(paths.manifest, after);
  EXPECT_EQ(stage(), "current2");
  write_bytes(paths.manifest, before);
  EXPECT_EQ(stage(), "staged2");
  EXPECT_EQ(stage(), "pending");
  EXPECT_TRUE(bootstrap_update_pending(paths.root) && trusted.repository.requests.empty());
  fs::remove(installation);
  EXPECT_EQ(code_of([&] { stage(); }), "not_installed");
}

TEST_F(BootstrapUpdate, CommitsAnImageThatRunsAndPutsEveryOtherBack) {
  const auto real = current_executable_path().parent_path() / "tavro-bootstrap";
  const fs::path report = paths.root / "report";
  copy_tree(paths.root, start);
  for (const auto& [content, runs] :
       {std::pair(shell + "echo $# $TAVRO_BOOTSTRAP_START_CHECK >> ../../../report\n", true),
        {read_file(real, 256U << 20), true},
        {shell + "exit 1\n", false},
        {shell + "kill -9 $$\n", false},
        {shell + "exec sleep 60\n", false},
        {"no program", false}}) {
    copy_tree(start, paths.root);
    publish(release(new_release(content)));
    stage();
    apply_staged_bootstrap(paths, image, std::chrono::seconds(2));
    expect_settled(runs ? new_release(content) : old_release);
    EXPECT_EQ(stage(), runs ? "current2" : "rejected2");
    EXPECT_TRUE(!stands(report) || read_file(report, 99) == "0 1\n0 1\n");
  }
}

TEST_F(BootstrapUpdate, WaitsWhileItMayNotRunAndTakesNothingThatHasChanged) {
  publish(release(new_release(shell + "kill -INT $PPID\nexec sleep 60\n")));
  stage();
  EXPECT_EQ(end_of([&] { apply(); }), SIGINT);
  auto running = bootstrap_lifetime(image);
  apply();
  running.reset();
  put_file(paths.root / incomplete_marker_name, "");
  apply();
  fs::remove(paths.root / incomplete_marker_name);
  apply_pending_bootstrap_update(entry);
  setenv(bootstrap_start_check_environment, "0", 1);
  EXPECT_EXIT(apply(), testing::ExitedWithCode(0), "");
  setenv(bootstrap_start_check_environment, "", 1);
  EXPECT_TRUE(bootstrap_update_pending(paths.root) && stands(paths.update / "turn"));
  EXPECT_EQ(tree_content(paths.installed), old_release);
  // Nothing is taken from where a link leads, and nothing goes there.
  const fs::path away = temp / "away";
  for (const fs::path part : {"", "share"}) {
    fs::remove_all(paths.rejected);
    stage();
    const fs::path from = (paths.update / part / "").parent_path();
    fs::rename(from, away);
    fs::create_directory_symlink(away, from);
    const auto held = tree_content(away);
    apply();
    expect_settled(old_release);
    EXPECT_EQ(tree_content(away), held);
    fs::remove_all(away);
  }
  fs::remove_all(paths.rejected);
  stage();
  write_bytes(paths.update / "share/changed", "neW");
  apply();
  expect_settled(old_release);
}

TEST_F(BootstrapUpdate, EndsWithOneOfTheTwoWhereverRunsEnd) {
  const auto fresh = temp / "fresh";
  copy_tree(paths.root, fresh);
  // No power fails here, and what the kernel has taken outlives every process.
  SystemCalls unsynced = system_calls();
  unsynced.fsync = [](int) { return 0; };
  const SystemCallScope sweeping(unsynced);
  // Two in full, then one without a file that stays as it is, and one that never starts.
  const std::vector<std::string> ends = {"exit 0\n", "case $0 in */bootstrap/*) exit 1;; esac\n",
                                         "exit 0\n#", "exit 1\n"};
  for (std::size_t row = 0; row < ends.size(); ++row) {
    const std::string& end = ends[row];
    Files files = new_release(shell + end);
    if (row == 2) files.erase("share/same");
    publish(release(files));
    const Files settled = end.starts_with("exit 0") ? files : old_release;
    for (const auto fault : {Fault::kill, Fault::fail}) {
      copy_tree(fresh, paths.root);
      if (row > 1)
        stage();
      else
        EXPECT_GT(end_everywhere(fault, settled, [&] { stage(); }), 90);
      EXPECT_GT(end_everywhere(fault, settled, [&] { apply(); }), 30);
      if (row > 1) break;
      if (fault != Fault::kill) continue;
      // The same where a file can have only one name.
      SystemCalls calls = system_calls();
      calls.link = [](auto...) { return errno = EPERM, -1; };
      const SystemCallScope without_links(calls);
      copy_tree(start, paths.root);
      EXPECT_GT(end_everywhere(fault, settled, [&] { apply(); }), 50);
    }
  }
  EXPECT_TRUE(marked);
}

TEST_F(BootstrapUpdate, TakesBackWhatItCanOfAnUpdateThatWaits) {
  const Files files = new_release(shell);
  publish(release(files));
  stage();
  {
    SystemCalls calls = system_calls();
    static auto* const rename = calls.rename;
    calls.link = [](auto...) { return errno = EPERM, -1; };
    calls.rename = [](const char* from, const char* to) {
      const std::string name = to;
      const bool fails = name.ends_with("/bootstrap/turn") || name.ends_with("update/share/same");
      return fails ? (errno = EIO, -1) : rename(from, to);
    };
    const SystemCallScope failing(calls);
    apply();
  }
  EXPECT_TRUE(bootstrap_update_pending(paths.root) && stands(paths.update / "share/added/deep"));
  EXPECT_EQ(read_file(paths.installed / "share/changed", 99), "old");
  apply();
  expect_settled(files);
}

}  // namespace tavro::bootstrap_update_test
