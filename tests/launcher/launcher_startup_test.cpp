// A candidate's probation: the store's side in this process, the launcher's in real ones.

#include "launcher/launcher_startup.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "launcher/launcher_helper.h"
#include "launcher/launcher_runtime.h"
#include "launcher/launcher_store.h"
#include "launcher/runtime_image.h"
#include "launcher/start_marker.h"
#include "support/installation.h"
#include "support/launched.h"

namespace tavro::launcher_startup_test {

class Startup : public testing::Test {
 protected:
  json stage(const std::string& build) { return stage_version(store, folder.path(), build); }
  fs::path descriptor(const json& reference) const {
    const std::string name = reference.at("manifest_sha256");
    return store.directory() / "manifests" / (name + ".json");
  }
  fs::path image(const json& reference, const std::string& name) const {
    return store.payload(reference) / "bin" / name;
  }
  /// Starts the attempt's windowed launcher as a bootstrap does.
  Launched start(const json& attempt, const std::string& steps) const {
    return {image(attempt.at("reference"), "launcher-gui"), steps,
            store.health_environment(attempt, "gui")};
  }
  json health(const json& attempt) const {
    return json::parse(read_file(store.health_path(attempt), launcher_proof_bytes));
  }
  TempFolder folder;
  fs::path root = folder.path() / "data";
  LauncherStore store{root};
  std::unique_ptr<FileLock> owner = store.owner();
};

TEST_F(Startup, ConfirmsOnlyTheWholeProofOfTheProcessThatWasStarted) {
  const auto first = stage("1.0.0");
  const auto attempt = store.begin_candidate();
  auto launcher = start(attempt, "attach environment health say:ready wait");
  EXPECT_EQ(launcher.line(), "attached");
  EXPECT_EQ(launcher.line(), "ready");  // so nothing of the authority was passed on
  const auto before = store.load();
  const auto pid = launcher.pid();
  const auto proof = health(attempt);
  auto padded = proof, other = attempt;
  padded["pid"] = static_cast<double>(pid);
  other["nonce"] = std::string(32, '0');
  const std::vector<std::tuple<json, json, unsigned long long, std::string, std::string>> rows = {
      {attempt, proof, 0, "gui", "launcher_health"},
      {attempt, proof, pid + 1, "gui", "launcher_health"},
      {attempt, padded, pid, "gui", "launcher_health"},
      {attempt, proof, pid, "cli", "launcher_health"},
      {attempt, proof, pid, "tui", "launcher_interface"},
      {other, proof, pid, "gui", "launcher_state"},
      {nullptr, proof, pid, "gui", "launcher_state"}};
  for (const auto& [of, document, process, interface, code] : rows)
    EXPECT_EQ(code_of([&, &a = of, &d = document, &p = process, &i = interface] {
                store.confirm_candidate(a, d, p, i);
              }),
              code);
  const auto confirm = [&] { store.confirm_candidate(attempt, proof, pid, "gui"); };
  const auto ack = store.startup_ack_path(attempt);
  const auto file = store.payload(first) / "share/part-0/file-0.bin";
  const std::vector<std::tuple<fs::path, std::string, std::string>> damages = {
      {ack, proof.dump(), "launcher_lease"},
      {ack, std::string(launcher_proof_bytes + 1, ' '), "size_limit"},
      {descriptor(first), "{}", "content_mismatch"},
      {file, std::string(1000, 'x'), "content_mismatch"}};
  for (const auto& [path, bad, code] : damages) {
    const auto good = read_file(path, 524288);
    put_file(path, bad);
    EXPECT_EQ(code_of(confirm), code) << path;
    put_file(path, good);
  }
  fs::rename(ack, folder.path() / "ack");
  EXPECT_FAILURE(confirm(),
                 "launcher_lease: Launcher startup did not acknowledge native content ownership");
  fs::copy(folder.path() / "ack", ack);
  EXPECT_EQ(store.load(), before);
  auto failed_once = before;
  failed_once["failed_candidate"] = {{"reference", first}, {"problem", "startup_failed"}};
  store.save(failed_once);
  confirm();
  EXPECT_EQ(code_of(confirm), "launcher_state");
  EXPECT_EQ(store.load().at("active"), first);
  EXPECT_TRUE(store.load().at("failed_candidate").is_null());
}

TEST_F(Startup, RejectsAnAttemptUnderACodeOfItsAlphabet) {
  const auto untouched = store.load();
  EXPECT_TRUE(store.begin_candidate().is_null());
  store.recover_attempt();
  EXPECT_EQ(store.load(), untouched);
  const auto reference = stage("1.0.0");
  auto attempt = store.begin_candidate();
  EXPECT_EQ(code_of([&] { store.begin_candidate(); }), "busy");
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
    EXPECT_EQ(code_of([&] { store.health_path(json{{"nonce", nonce}}); }), "launcher_state");
}

TEST_F(Startup, LetsNoImageRunThatIsNotWhatItsStartSays) {
  const auto payload = store.payload(stage("1.0.0"));
  const auto copies = folder.path() / "copies";
  const auto name = payload.filename();
  for (const auto* place : {"launcher", "launcher/staging", "tavro-maintenance-1"})
    copy_tree(payload, copies / place / name);
  const auto attempt = store.begin_candidate();
  const auto environment = store.health_environment(attempt, "cli");
  const auto staged = copies / "launcher/staging" / name, unmanaged = copies / "launcher" / name;
  struct Row {
    fs::path tree;
    std::string image;
    std::string steps;
    /// In an attempt: the variable that is changed, and to what; empty for an ordinary start.
    std::string key;
    std::string value;
    std::string answer;
  };
  const std::string free = launcher_interface_environment, none;
  const std::vector<Row> rows = {
      {unmanaged, "launcher", "attach", none, none, "unmanaged"},
      {unmanaged, "launcher", "helper:maintenance", none, none, "unmanaged"},
      {copies / "tavro-maintenance-1" / name, "launcher", "attach", none, none, "maintenance_copy"},
      {staged, "launcher", "attach", free, "cli", "launcher_staging"},
      {payload, "launcher", "attach", none, none, "attached"},
      {payload, "launcher", "attach:gui", none, none, "launcher_identity"},
      {payload, "launcher", "attach:tui", none, none, "launcher_interface"},
      {payload, "launcher", "build:2.0.0 attach", none, none, "launcher_state"},
      {payload, "launcher-maintenance", "helper:crash-handler", none, none, "launcher_identity"},
      {payload, "launcher", "helper:maintenance", none, none, "launcher_identity"},
      {payload, "launcher", "helper:launcher", none, none, "launcher_helper"},
      {payload, "launcher", "attach", launcher_interface_environment, "gui", "launcher_health"},
      {payload, "launcher", "attach", launcher_build_environment, "2.0.0", "launcher_health"},
      {payload, "launcher", "attach", launcher_root_environment, copies, "launcher_health"},
      {payload, "launcher", "attach", launcher_root_environment, none, "launcher_health"},
      {payload, "launcher", "attach", launcher_nonce_environment, "0", "launcher_state"},
      {payload, "launcher", "attach", launcher_nonce_environment, std::string(32, '0'),
       "launcher_health"},
      {payload, "launcher", "attach", launcher_manifest_environment, "0", "launcher_state"},
      {payload, "launcher-gui", "attach:cli", free, "cli", "launcher_identity"},
      {payload, "launcher", "attach", free, "cli", "attached"},
      {payload, "launcher", "attach", free, "cli", "file_write"}};  // acknowledged before
  for (const auto& row : rows) {
    auto with = row.key.empty() ? Launched::Environment{} : environment;
    if (!row.key.empty()) with[row.key] = row.value;
    const auto said = Launched(row.tree / "bin" / row.image, row.steps, with).line();
    EXPECT_EQ(said.substr(0, said.find(':')), row.answer) << row.steps << " " << row.value;
  }
}

TEST_F(Startup, ReportsHealthOnceAndOnlyWhileItsAttemptIsOpen) {
  const auto reference = stage("1.0.0");
  const auto attempt = store.begin_candidate();
  auto twice = start(attempt, "attach health health stop health say:ready wait");
  waitpid(twice.id(), nullptr, WUNTRACED);
  EXPECT_EQ(code_of([&] { store.recover_attempt(); }), "launcher_running");
  fs::remove(store.health_path(attempt));
  kill(twice.id(), SIGCONT);
  twice.line();
  EXPECT_EQ(twice.line(), "ready");

  fs::remove(store.startup_ack_path(attempt));
  auto late = start(attempt, "attach stop health");
  waitpid(late.id(), nullptr, WUNTRACED);
  store.reject_candidate(attempt, "startup_failed");
  kill(late.id(), SIGCONT);
  late.line();
  EXPECT_EQ(late.line(), "launcher_health: Launcher startup attempt is no longer pending");

  put_file(start_marker(root), "{}");
  Launched ordinary(image(reference, "launcher"), "attach health confirm detach say:ready wait",
                    {});
  ordinary.line();
  EXPECT_EQ(ordinary.line(), "ready");
  EXPECT_TRUE(!fs::exists(start_marker(root)) && fs::is_empty(store.directory() / "health"));
  // What the launchers hold lasts as long as their processes.
  const auto retire = [&] { store.version_guard(reference, LockMode::exclusive); };
  for (auto* running : {&twice, &ordinary}) {
    EXPECT_EQ(code_of(retire), "busy");
    running->end();
  }
  EXPECT_EQ(code_of(retire), "");
}

TEST_F(Startup, GuardsAHelperByItsPlaceAndContent) {
  const auto reference = stage("1.0.0");
  const auto helper = image(reference, "launcher-maintenance");
  const auto open = folder.path() / "open";
  fs::create_directory(open);
  fs::permissions(open, fs::perms::all);  // or a link of root's would be one of the system
  fs::create_symlink(helper, open / "link");
  fs::create_directory_symlink(helper.parent_path(), open / "bin");
  const auto guard = [&](const fs::path& at, const std::string& id = "") {
    return code_of([&] { EXPECT_TRUE(launcher_helper_guard(at, "maintenance", id)); });
  };
  EXPECT_EQ(guard(helper), "");
  EXPECT_EQ(guard(store.directory() / "." / fs::relative(helper, store.directory())), "");
  Launched running(helper, "helper:maintenance detach say:detached wait", {});
  running.line();
  EXPECT_EQ(running.line(), "detached");
  EXPECT_EQ(code_of([&] { store.version_guard(reference, LockMode::exclusive); }), "busy");
  for (const fs::path& at :
       {open / "link", open / "bin/launcher-maintenance", open, fs::path("launcher-maintenance")})
    EXPECT_EQ(guard(at), "launcher_identity") << at;
  EXPECT_EQ(guard(helper, "2.0.0"), "launcher_state");
  auto bytes = read_file(helper, 100 << 20);
  bytes.back() ^= 1;
  running.end();  // no image can be written while it runs
  put_file(helper, bytes);
  EXPECT_EQ(guard(helper), "content_mismatch");
  put_file(descriptor(reference), "[]");
  EXPECT_EQ(guard(helper), "launcher_helper");

  fs::path deep = "/";
  for (int i = 0; i < 255; ++i) deep /= "a";
  EXPECT_FALSE(managed_version(deep / "image"));
  EXPECT_FAILURE(managed_version(deep / "a/image"),
                 "launcher_identity: Native executable ancestry exceeds its bound");
  EXPECT_EQ(code_of([&] { reject_staged_image(deep / "a/image"); }), "launcher_identity");
  EXPECT_EQ(code_of([] { managed_version("/launcher/versions/" + std::string(64, 'A') + "/x"); }),
            "launcher_state");
}

}  // namespace tavro::launcher_startup_test
