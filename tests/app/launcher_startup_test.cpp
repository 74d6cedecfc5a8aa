// A candidate's probation: the store's side in this process, the launcher's in real ones.

#include "app/launcher_startup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <set>

#include "app/launcher_helper.h"
#include "app/launcher_runtime.h"
#include "app/launcher_store.h"
#include "app/runtime_image.h"
#include "domain/input.h"
#include "platform/native_platform.h"
#include "platform/snapshot.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

using Environment = std::map<std::string, std::string>;

/// A process of the image. `line` is the next line of its output and errors, empty at their end.
class Launched {
 public:
  Launched(const fs::path& image, const std::string& steps, const Environment& environment) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], 1);
      dup2(ends[1], 2);
      for (const auto& [key, value] : environment) setenv(key.c_str(), value.c_str(), 1);
      setenv("TAVRO_TEST_LAUNCHER", steps.c_str(), 1);
      execl(image.c_str(), image.c_str(), nullptr);
      _exit(127);
    }
    close(ends[1]);
    output_ = fdopen(ends[0], "r");
  }
  ~Launched() {
    end();
    std::fclose(output_);
  }
  Launched(const Launched&) = delete;
  Launched& operator=(const Launched&) = delete;

  std::string line() {
    std::array<char, 4096> text{};
    if (std::fgets(text.data(), text.size(), output_) == nullptr) return "";
    const std::string line = text.data();
    return line.substr(0, line.find('\n'));
  }
  void end() {
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  void wait_stopped() const { waitpid(pid_, nullptr, WUNTRACED); }
  void go_on() const { kill(pid_, SIGCONT); }
  unsigned long long pid() const { return static_cast<unsigned long long>(pid_); }

 private:
  pid_t pid_ = 0;
  std::FILE* output_ = nullptr;
};

fs::path launcher_image() {
  return current_executable_path().parent_path() / "ill-behaved-launcher";
}

SealedPackageOptions build(const std::string& id) {
  SealedPackageOptions options;
  options.launcher_build = id;
  options.launcher_files = 1;
  options.launcher_image = options.launcher_gui_image = options.maintenance_image =
      launcher_image();
  return options;
}

class Startup : public testing::Test {
 protected:
  /// Makes a verified version wait, as an update does.
  json stage(const std::string& id) {
    const SealedPackage package(make(folder.path() / id), build(id));
    LauncherStore other(folder.path() / id / "data", true);
    const auto reference = other.seed_initial(read_file(package.path("launcher_manifest"), 524288),
                                              package.path("launcher_archive"));
    const auto descriptor = reference.at("manifest_sha256").get<std::string>() + ".json";
    copy_tree(other.payload(reference), store.payload(reference));
    fs::copy(other.directory() / "manifests" / descriptor, store.directory() / "manifests");
    auto record = store.load();
    record["candidate"] = reference;
    store.save(record);
    return reference;
  }
  static fs::path make(const fs::path& path) {
    fs::create_directory(path);
    return path;
  }

  fs::path image(const json& reference, const std::string& name) const {
    return store.payload(reference) / "bin" / name;
  }
  /// Starts the attempt's windowed launcher as a bootstrap does.
  Launched start(const json& attempt, const std::string& steps) {
    return {image(attempt.at("reference"), "launcher-gui"), steps,
            store.health_environment(attempt, "gui")};
  }
  json health(const json& attempt) const {
    return json::parse(read_file(store.health_path(attempt), launcher_proof_bytes));
  }
  /// A whole start of the attempt, up to the process's end.
  void prove(const json& attempt) {
    auto launcher = start(attempt, "attach health say:ready wait");
    while (launcher.line() != "ready") continue;
    store.confirm_candidate(attempt, health(attempt), launcher.pid(), "gui");
  }
  /// What a bootstrap left that was killed with or without a launcher in its process group: proves
  /// that the next start settles it, and names what it found.
  std::string settle(pid_t group) {
    const auto lock = store.owner();
    const auto record = store.load();
    const bool trying = !record.at("attempt").is_null();
    const bool alive = waitpid(-group, nullptr, WNOHANG) == 0;
    if (alive && trying) {
      EXPECT_EQ(code_of([&] { store.recover_attempt(); }), "launcher_running");
      EXPECT_EQ(store.load(), record);
    }
    if (alive) kill(-group, SIGKILL), waitpid(-group, nullptr, 0);
    store.recover_attempt();
    auto settled = store.load();
    if (!record.at("candidate").is_null()) return settled == record ? "waiting" : "changed";
    if (settled.at("failed_candidate").is_null()) return trying ? "forgotten" : "active";
    const std::string problem = settled.at("failed_candidate").at("problem");
    return !trying ? problem : problem + (alive ? ", outlived" : ", lost");
  }
  std::string stored() const { return read_file(store.directory() / "installation.json", 32768); }

  TempFolder folder;
  fs::path root = folder.path() / "data";
  LauncherStore store{root};
  std::unique_ptr<FileLock> owner = store.owner();
};

TEST_F(Startup, ConfirmsOnlyTheWholeProofOfTheProcessThatWasStarted) {
  stage("1.0.0");
  const auto attempt = store.begin_candidate();
  auto launcher = start(attempt, "attach environment health say:ready wait");
  EXPECT_EQ(launcher.line(), "attached");
  EXPECT_EQ(launcher.line(), "ready");  // so nothing of the authority was passed on
  const auto before = stored();
  const auto pid = launcher.pid();
  const auto proof = health(attempt);
  auto padded = proof, other = attempt;
  padded["pid"] = static_cast<double>(pid);
  other["nonce"].get_ref<std::string&>().back() ^= 1;
  const auto confirm = [&] { store.confirm_candidate(attempt, proof, pid, "gui"); };
  const std::string mismatch =
      "launcher_health: Launcher health does not match its build, process, mode, interrupt "
      "contract "
      "and attempt";
  EXPECT_FAILURE(store.confirm_candidate(attempt, proof, 0, "gui"),
                 "launcher_health: Startup PID is invalid");
  EXPECT_FAILURE(store.confirm_candidate(other, proof, pid, "gui"),
                 "launcher_state: Launcher startup ownership changed");
  EXPECT_EQ(code_of([&] { store.confirm_candidate(attempt, proof, pid, "tui"); }),
            "launcher_interface");
  EXPECT_FAILURE(store.confirm_candidate(attempt, proof, pid + 1, "gui"), mismatch);
  EXPECT_FAILURE(store.confirm_candidate(attempt, padded, pid, "gui"), mismatch);
  EXPECT_FAILURE(store.confirm_candidate(attempt, proof, pid, "cli"), mismatch);
  const auto ack = store.startup_ack_path(attempt);
  auto foreign = json::parse(read_file(ack, launcher_proof_bytes));
  foreign["pid"] = pid + 1;
  const auto payload = store.payload(attempt.at("reference"));
  const auto descriptor = store.directory() / "manifests" / (payload.filename().string() + ".json");
  const std::vector<std::tuple<fs::path, std::string, std::string>> damages = {
      {ack, foreign.dump(), "launcher_lease"},
      {ack, std::string(launcher_proof_bytes + 1, ' '), "size_limit"},
      {descriptor, "{}", "content_mismatch"},
      {payload / "share/part-0/file-0.bin", std::string(1000, 'x'), "content_mismatch"}};
  for (const auto& [path, bad, code] : damages) {
    const auto good = read_file(path, 524288);
    write_bytes(path, bad);
    EXPECT_EQ(code_of(confirm), code) << path;
    write_bytes(path, good);
  }
  fs::rename(ack, folder.path() / "ack");
  EXPECT_FAILURE(confirm(),
                 "launcher_lease: Launcher startup did not acknowledge native content ownership");
  fs::copy(folder.path() / "ack", ack);
  EXPECT_EQ(stored(), before);
  confirm();
  EXPECT_EQ(code_of(confirm), "launcher_state");
  EXPECT_EQ(store.load().at("active"), attempt.at("reference"));
  const json second = stage("2.0.0");
  prove(store.begin_candidate());
  const json third = stage("3.0.0");
  prove(store.begin_candidate());
  EXPECT_EQ(store.load().at("active"), third);
  EXPECT_EQ(store.load().at("rollback"), second);
  EXPECT_TRUE(fs::exists(payload));
}

TEST_F(Startup, RejectsAnAttemptUnderACodeOfItsAlphabet) {
  const auto untouched = store.load().at("generation");
  EXPECT_TRUE(store.begin_candidate().is_null());
  store.recover_attempt();
  EXPECT_EQ(store.load().at("generation"), untouched);
  const auto reference = stage("1.0.0");
  const auto attempt = store.begin_candidate();
  EXPECT_FAILURE(store.begin_candidate(), "busy: Another launcher startup needs recovery");
  for (const auto& problem : {std::string(), std::string(81, 'a'), std::string("Failed")})
    EXPECT_FAILURE(store.reject_candidate(attempt, problem),
                   "launcher_state: Launcher startup problem code is invalid");
  auto other = attempt;
  other["nonce"] = std::string(32, '0');
  EXPECT_FAILURE(store.reject_candidate(other, "startup_failed"),
                 "launcher_state: Launcher startup ownership changed");
  store.reject_candidate(attempt, std::string(76, 'a') + "_-09");
  EXPECT_TRUE(store.load().at("attempt").is_null() && store.load().at("active").is_null());
  EXPECT_EQ(store.load().at("failed_candidate").at("reference"), reference);
  for (const json& nonce : {json("A"), json(1), json(std::string(31, 'a') + "/")})
    EXPECT_FAILURE(store.health_path({{"nonce", nonce}}),
                   "launcher_state: Launcher startup identity is invalid");
}

TEST_F(Startup, KnowsWhatToDoWhereverABootstrapIsKilled) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // a launcher that loses its bootstrap becomes ours
  const auto active = stage("1.0.0");
  prove(store.begin_candidate());
  const auto candidate = stage("2.0.0");
  const auto waiting = store.load();
  auto trying = waiting;
  trying["attempt"] = {{"nonce", std::string(32, '0')}, {"reference", candidate}};
  trying["candidate"] = nullptr;
  owner.reset();

  const auto confirms = [&] {
    const auto attempt = store.begin_candidate();
    const auto version = store.version_guard(candidate, LockMode::shared);
    const FileLock lease(store.startup_lease_path(attempt), false, LockMode::shared);
    prove(attempt);
  };
  const auto rejects = [&] { store.reject_candidate(store.begin_candidate(), "startup_failed"); };
  const auto recovers = [&] { store.recover_attempt(); };
  std::set<std::string> found;
  const auto sweep = [&](const json& before, const std::function<void()>& work) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE(nth);
      store.save(before);
      const pid_t bootstrap = fork();
      if (bootstrap == 0) {
        setpgid(0, 0);
        const FailNthCall killing(nth, 0, Fault::kill);
        const auto lock = store.owner();
        _exit(code_of(work).empty() ? 0 : 1);
      }
      int status = 0;
      waitpid(bootstrap, &status, 0);
      EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << status;
      const auto ending = settle(bootstrap);
      EXPECT_EQ(store.load().at("active"), ending == "active" ? candidate : active);
      found.insert(ending);
      if (!WIFSIGNALED(status) || HasFailure()) return;
    }
  };
  sweep(waiting, confirms);
  sweep(waiting, rejects);
  sweep(trying, recovers);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  EXPECT_EQ(found, (std::set<std::string>{"waiting", "startup_interrupted, lost",
                                          "startup_interrupted, outlived", "startup_interrupted",
                                          "startup_failed", "active"}));
}

TEST_F(Startup, LetsNoImageRunThatIsNotWhatItsStartSays) {
  const auto reference = stage("1.0.0");
  const auto payload = store.payload(reference);
  const auto elsewhere = folder.path() / "elsewhere";
  const auto name = payload.filename();
  for (const fs::path& place : {fs::path("plain"), "launcher" / name, "launcher/staging" / name,
                                fs::path("tavro-maintenance-1")})
    copy_tree(payload, elsewhere / place);
  const auto attempt = store.begin_candidate();
  const auto said = [](const fs::path& at, const std::string& steps, const Environment& with) {
    return Launched(at, steps, with).line();
  };
  // Without a word of a bootstrap.
  const std::string other_image =
      "launcher_identity: Running launcher image differs from its verified native entry point";
  const std::string other_role =
      "launcher_identity: Running helper image differs from its declared native role";
  const std::vector<std::tuple<fs::path, std::string, std::string>> ordinary = {
      {elsewhere / "plain/bin/launcher", "attach", "unmanaged"},
      {elsewhere / "launcher" / name / "bin/launcher", "attach", "unmanaged"},
      {elsewhere / "plain/bin/launcher", "helper:maintenance", "unmanaged"},
      {elsewhere / "tavro-maintenance-1/bin/launcher", "attach",
       "maintenance_copy: A temporary maintenance helper cannot start Tavro"},
      {payload / "bin/launcher", "attach", "attached"},
      {payload / "bin/launcher", "attach:gui", other_image},
      {payload / "bin/launcher", "attach:tui",
       "launcher_interface: Choose the CLI or GUI launcher interface"},
      {payload / "bin/launcher", "build:2.0.0 attach",
       "launcher_state: Launcher identity/platform differs from its local reference"},
      {payload / "bin/launcher-maintenance", "helper:maintenance", "attached"},
      {payload / "bin/launcher-maintenance", "helper:crash-handler", other_role},
      {payload / "bin/launcher", "helper:maintenance", other_role},
      {payload / "bin/launcher", "helper:launcher",
       "launcher_helper: Unsupported native helper role"},
  };
  for (const auto& [at, steps, answer] : ordinary) EXPECT_EQ(said(at, steps, {}), answer) << steps;
  // In an attempt, one word changed.
  const std::string not_this =
      "launcher_health: Launcher startup does not match this build, interface or data root";
  const auto environment = store.health_environment(attempt, "cli");
  const std::vector<std::tuple<std::string, std::string, std::string>> candidates = {
      {launcher_interface_environment, "gui", not_this},
      {launcher_build_environment, "2.0.0", not_this},
      {launcher_root_environment, folder.path(), not_this},
      {launcher_nonce_environment, "0", "launcher_state: Launcher startup identity is invalid"},
      {launcher_nonce_environment, std::string(32, '0'),
       "launcher_health: Launcher startup is no longer pending or cannot protect its content"},
      {launcher_manifest_environment, "0", "launcher_state: Launcher manifest identity is invalid"},
  };
  for (const auto& [key, value, answer] : candidates) {
    auto changed = environment;
    changed[key] = value;
    EXPECT_EQ(said(payload / "bin/launcher", "attach", changed), answer) << key;
  }
  EXPECT_EQ(
      said(elsewhere / "launcher/staging" / name / "bin/launcher", "attach", environment),
      "launcher_staging: A staged Tavro image cannot initialize; start the installed bootstrap");
  EXPECT_EQ(said(payload / "bin/launcher", "attach", environment), "attached");
  EXPECT_TRUE(said(payload / "bin/launcher", "attach", environment).starts_with("file_write: "));
}

TEST_F(Startup, ReportsHealthOnceAndOnlyWhileItsAttemptIsOpen) {
  stage("1.0.0");
  auto attempt = store.begin_candidate();
  auto late = start(attempt, "attach stop health");
  late.line();
  late.wait_stopped();
  EXPECT_EQ(code_of([&] { store.recover_attempt(); }), "launcher_running");
  store.reject_candidate(attempt, "startup_failed");
  late.go_on();
  EXPECT_EQ(late.line(), "launcher_health: Launcher startup attempt is no longer pending");
  EXPECT_FALSE(fs::exists(store.health_path(attempt)));

  auto record = store.load();
  record["candidate"] = attempt.at("reference");
  store.save(record);
  attempt = store.begin_candidate();
  auto twice = start(attempt, "attach health health say:ready");
  twice.line();
  EXPECT_EQ(twice.line(), "ready");
  Launched ordinary(image(attempt.at("reference"), "launcher"), "attach health confirm say:ready",
                    {});
  put_file(start_marker(root), "{}");
  ordinary.line();
  EXPECT_EQ(ordinary.line(), "ready");
  EXPECT_EQ(std::distance(fs::directory_iterator(store.directory() / "health"), {}), 1);
}

TEST_F(Startup, KeepsItsVersionUntilTheProcessEnds) {
  const auto reference = stage("1.0.0");
  const auto retire = [&] {
    return code_of([&] { store.version_guard(reference, LockMode::exclusive); });
  };
  for (const std::string name : {"launcher", "launcher-maintenance"}) {
    const auto steps = name == "launcher" ? "attach" : "helper:maintenance";
    Launched running(image(reference, name), std::string(steps) + " detach say:detached wait", {});
    running.line();
    EXPECT_EQ(running.line(), "detached");
    EXPECT_EQ(retire(), "busy");
    running.end();
    EXPECT_EQ(retire(), "");
  }
}

TEST_F(Startup, GuardsAHelperByItsPlaceAndContent) {
  const auto reference = stage("1.0.0");
  const auto helper = image(reference, "launcher-maintenance");
  const auto guard = [&](const fs::path& at, const std::string& id = "") {
    return failure_of([&] {
      EXPECT_TRUE(launcher_helper_guard(at, "maintenance", id));
      EXPECT_EQ(code_of([&] { store.version_guard(reference, LockMode::exclusive); }), "");
    });
  };
  EXPECT_EQ(guard(helper), "");
  fs::create_symlink(helper, folder.path() / "link");
  const auto open = make(folder.path() / "open");
  fs::permissions(open, fs::perms::all);  // or a link of root's would be one of the system
  fs::create_directory_symlink(helper.parent_path(), open / "bin");
  const std::string unordinary =
      "launcher_identity: Native helper image must be an ordinary physical path";
  EXPECT_EQ(guard(folder.path() / "link"), unordinary);
  EXPECT_EQ(guard(open / "bin/launcher-maintenance"), unordinary);
  EXPECT_EQ(guard(helper.parent_path()), unordinary);
  EXPECT_EQ(guard("launcher-maintenance"), unordinary);
  EXPECT_EQ(guard(helper, "2.0.0").substr(0, 14), "launcher_state");
  auto bytes = read_file(helper, 100 << 20);
  bytes.back() ^= 1;
  write_bytes(helper, bytes);
  EXPECT_EQ(guard(helper),
            "content_mismatch: Native helper image differs from its verified launcher inventory");
  const auto descriptor = store.directory() / "manifests" /
                          (reference.at("manifest_sha256").get<std::string>() + ".json");
  write_bytes(descriptor, "[]");
  EXPECT_EQ(guard(helper), "launcher_helper: Native helper has no bounded launcher identity");

  fs::path deep = "/";
  for (int i = 0; i < 255; ++i) deep /= "a";
  EXPECT_FALSE(managed_version(deep / "image"));
  EXPECT_FAILURE(managed_version(deep / "a/image"),
                 "launcher_identity: Native executable ancestry exceeds its bound");
  EXPECT_EQ(code_of([] { managed_version("/launcher/versions/" + std::string(64, 'A') + "/x"); }),
            "launcher_state");
}

}  // namespace
}  // namespace tavro
