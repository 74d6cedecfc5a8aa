#include "cleanup/launcher_cleanup.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/host/native_platform.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/sealed_package.h"
#include "tuf/trusted_client.h"

namespace tavro::launcher_staging_test {

/// Serves each target under its own name.
struct Shelf : TargetServer {
  std::map<std::string, std::string> targets;
  void download_into(std::string_view path, AllocatedFile& file, unsigned long long offset,
                     const Progress& progress, const std::function<void(std::string_view)>& bytes,
                     const std::function<void()>& restart) override {
    content = targets.at(std::string(path.substr(path.find('.') == 64 ? 65 : 0)));
    TargetServer::download_into(path, file, offset, progress, bytes, restart);
  }
};

struct LauncherStaging : testing::Test {
  TrustedClient trusted;
  Shelf shelf;
  fs::path root = trusted.folder.path() / "data";

  LauncherStaging() { LauncherStore{root}; }
  LauncherStore store() const { return LauncherStore(root); }
  fs::path child(const std::string& name) const { return root / "launcher" / name; }

  /// Makes a release and publishes it as the newest.
  json publish(const std::string& build, std::string descriptor_extra = {}) {
    SealedPackageOptions options;
    options.launcher_build = build;
    const fs::path made = trusted.folder.path() / random_id();
    fs::create_directory(made);
    const SealedPackage package(made, options);
    const auto descriptor =
        read_file(package.path("launcher_manifest"), 524288) + std::move(descriptor_extra);
    add(launcher_manifest_target(native_platform()), descriptor);
    add(json::parse(descriptor).at("archive").at("target"),
        read_file(package.path("launcher_archive"), 1u << 28));
    trusted.repository.publish_update();
    return {{"manifest_sha256", digest(descriptor, "sha256")}, {"build_id", build}};
  }
  void add(const std::string& name, const std::string& content) {
    shelf.targets[name] = content;
    trusted.repository.add_target(trusted.repository.targets, name, content);
  }
  json stage(bool optional = false, const Progress& progress = {}, const StagingPhase& phase = {}) {
    return store().stage(trusted.reopen(shelf), progress, phase, optional);
  }
  void select(const std::string& key, const json& value) const {
    const auto owner = store().owner();
    json record = store().load();
    record[key] = value;
    store().save(record);
  }
  /// As a confirmed start does it.
  void activate() const {
    select("active", store().load().at("candidate"));
    select("candidate", nullptr);
  }
  void expect_whole(const json& reference) const {
    if (!reference.is_null())
      verify_snapshot_tree(store().manifest(reference), store().payload(reference));
  }
  std::size_t entries(const std::string& folder) const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(child(folder)), {}));
  }
  void expect_no_leftovers() const {
    for (const char* folder : {"staging", "intents", "downloads", "download-intents"})
      EXPECT_EQ(entries(folder), 0u) << folder;
    EXPECT_FALSE(fs::exists(child("cleanup.json")));
  }
  json clean() const { return clean_launcher_store(root, CleanupMode::perform).to_json(); }
};

TEST_F(LauncherStaging, LosesNothingWhereverARunStops) {
  const json old = publish("1.0.0");
  stage();
  activate();
  clean();
  const json fresh = publish("2.0.0");
  const fs::path before = trusted.folder.path() / "before";
  copy_tree(root, before);
  // The last runs start from what an earlier one left that was cut at this call.
  for (const auto& [fault, error, earlier] :
       {std::tuple(Fault::cut, EIO, 0), {Fault::fail, ENOSPC, 0}, {Fault::kill, EIO, 9}}) {
    const auto prepare = [&, nth = earlier] {
      copy_tree(before, root);
      const FailNthCall striking(nth, EIO, Fault::cut);
      if (nth != 0) code_of([&] { stage(); });
      trusted.client.reset();  // or a child would find its folder in use
    };
    const auto check = [&](const Stop&) {
      const json record = store().load();
      ASSERT_EQ(record.at("active"), old);
      expect_whole(record.at("candidate"));
      ASSERT_EQ(stage().at("staged"), true);
      ASSERT_EQ(store().load().at("candidate"), fresh);
      expect_whole(fresh);
      ASSERT_EQ(clean().at("kept"), json::array());
      expect_no_leftovers();
      expect_whole(old);
    };
    const auto work = [&] { stage(); };
    EXPECT_GT(strike_each_call(fault, error, prepare, work, check), 40);
  }
}

TEST_F(LauncherStaging, SaysWhyACheckInPassingStagesNothing) {
  EXPECT_EQ(stage(true).at("skipped"), "not_installed");
  EXPECT_TRUE(trusted.repository.requests.empty());
  const json first = publish("1.0.0");
  stage();
  activate();
  EXPECT_EQ(stage(true).at("already_current"), true);
  EXPECT_EQ(stage(false).at("already_current"), true);
  const json second = publish("2.0.0");
  select("failed_candidate", {{"reference", second}, {"problem", "startup_failed"}});
  EXPECT_EQ(stage(true).at("skipped"), "failed_before");
  select("candidate", first);
  EXPECT_EQ(stage(true).at("skipped"), "candidate_pending");
  EXPECT_EQ(code_of([&] { stage(); }), "launcher_pending");
  select("candidate", nullptr);
  EXPECT_EQ(stage().at("manifest_sha256"), second.at("manifest_sha256"));
  EXPECT_TRUE(store().load().at("failed_candidate").is_null());
  // The rollback is brought forward without an extraction.
  activate();
  select("rollback", first);
  publish("1.0.0");
  EXPECT_EQ(stage().at("staged"), true);

  select("attempt", nullptr);
  put_file(child("cleanup.json"), "{}");
  EXPECT_EQ(stage(true).at("skipped"), "cleanup_pending");
  EXPECT_EQ(code_of([&] { stage(); }), "launcher_cleanup_pending");
  EXPECT_EQ(code_of([&] { clean(); }), "unsupported_schema");
  fs::remove(child("cleanup.json")), fs::create_directory(child("cleanup.json"));
  EXPECT_EQ(code_of([&] { clean(); }), "unsupported_schema");
  fs::remove(child("cleanup.json"));
  select("candidate", nullptr);
  select("attempt", {{"nonce", std::string(32, 'a')}, {"reference", first}});
  EXPECT_EQ(stage(true).at("skipped"), "startup_pending");
  EXPECT_EQ(code_of([&] { stage(); }), "busy");
}

TEST_F(LauncherStaging, RefusesWhatTheStoreCannotTake) {
  publish("1.0.0");
  select("rollback", {{"manifest_sha256", std::string(64, 'a')}, {"build_id", "1.0.0"}});
  EXPECT_EQ(code_of([&] { stage(); }), "launcher_build_conflict");
  select("rollback", nullptr);
  for (const auto& [folder, most] : {std::pair("versions", 8), {"staging", 16}}) {
    for (int entry = 0; entry < most; ++entry) fs::create_directory(child(folder) / random_id());
    EXPECT_EQ(code_of([&] { stage(); }), "launcher_storage_full");
    fs::remove_all(child(folder)), fs::create_directory(child(folder));
    fs::permissions(child(folder), fs::perms::owner_all);
  }
  for (const auto& [file, code] : {std::pair(std::string("abc"), "launcher_download_uncertain"),
                                   std::pair(std::string(32, 'a') + ".json", "duplicate_key")}) {
    put_file(child("download-intents/" + file), R"({"a":1,"a":1})");
    EXPECT_EQ(code_of([&] { stage(); }), code);
    EXPECT_EQ(clean().at("kept").size(), 1u);
    fs::remove(child("download-intents/" + file));
  }
  // Another archive than the descriptor names.
  add("launcher-2.tar.zst", "x");
  const std::string name = launcher_manifest_target(native_platform());
  json descriptor = json::parse(shelf.targets.at(name));
  descriptor["archive"]["target"] = "launcher-2.tar.zst";
  add(name, descriptor.dump());
  trusted.repository.publish_update();
  EXPECT_EQ(code_of([&] { stage(); }), "content_mismatch");
  EXPECT_TRUE(store().load().at("candidate").is_null());
}

TEST_F(LauncherStaging, CleansOnlyWhatItCanExplain) {
  const json first = publish("1.0.0");
  stage();
  activate();
  const json second = publish("2.0.0");
  stage();
  activate();
  select("rollback", nullptr);
  const json third = publish("3.0.0");
  stage();
  put_file(child("downloads/mine.txt"), "mine");
  put_file(child("versions/notes"), "mine");

  const auto plan = clean_launcher_store(root, CleanupMode::plan).to_json();
  EXPECT_FALSE(fs::exists(child("cleanup.json")));
  {
    const auto running = store().version_guard(first, LockMode::shared);
    EXPECT_EQ(clean().at("kept").size(), 3u);
    expect_whole(first);
  }
  const fs::path before = trusted.folder.path() / "before";
  copy_tree(root, before);
  const auto check = [&](const Stop&) {
    // A version is whole or not there.
    if (fs::exists(store().payload(first))) expect_whole(first);
    EXPECT_EQ(clean().at("kept").size(), 2u);
    EXPECT_FALSE(fs::exists(store().payload(first)));
    EXPECT_EQ(entries("manifests"), 2u);
    EXPECT_EQ(entries("staging") + entries("intents"), 0u);
    expect_whole(second);
    expect_whole(third);
  };
  const auto prepare = [&] { copy_tree(before, root); };
  const auto work = [&] { clean(); };
  for (const Fault fault : {Fault::cut, Fault::fail})
    EXPECT_GT(strike_each_call(fault, EIO, prepare, work, check), 8);
  EXPECT_EQ(read_file(child("downloads/mine.txt"), 10), "mine");
}

TEST_F(LauncherStaging, EndsACleanupWhateverItMeets) {
  std::vector<std::string> names;
  for (const char* build : {"1.0.0", "2.0.0", "3.0.0"}) {
    names.push_back(publish(build).at("manifest_sha256"));
    stage();
    activate();
  }
  select("rollback", nullptr);
  const fs::path away = trusted.folder.path() / "away";
  const std::string nonce(32, 'a'), other(32, 'c'), unknown(64, 'b'),
      cached = "downloads/launcher.tar.zst", torn = "start-attempt.json." + nonce + ".tmp";
  fs::rename(child("versions/" + names[0]), away);
  fs::remove_all(child("versions/" + names[1]));
  fs::remove(child(cached));
  for (const auto& link : {"versions/" + names[0], "manifests/" + unknown + ".json",
                           "staging/" + nonce, "leases/attempts/" + other + ".lock", cached})
    fs::create_symlink(away, child(link));
  put_file(child("intents/" + nonce + ".json"),
           StagingIntent{nonce, *store().record().active}.to_json().dump());
  for (const auto& file :
       {"versions/" + names[1], "versions/" + unknown, "intents/." + nonce + ".tmp",
        "leases/attempts/" + nonce + ".lock", "health/" + other, torn})
    put_file(child(file), "mine");
  EXPECT_GE(clean().at("kept").size(), 9u);
  EXPECT_FALSE(fs::exists(child("cleanup.json")));
  EXPECT_EQ(entries("versions"), 4u);
  EXPECT_EQ(entries("staging") + entries("leases/attempts"), 3u);
  EXPECT_FALSE(fs::exists(child(torn)));
  EXPECT_EQ(entries("intents"), 2u);
  expect_whole(store().load().at("active"));
}

TEST_F(LauncherStaging, PlansWhatACleanupDoes) {
  publish("1.0.0");
  stage();
  select("candidate", nullptr);
  publish("2.0.0");
  shelf.sends = 100;
  EXPECT_EQ(code_of([&] { stage(); }), "network");
  for (int folder = 0; folder < 48; ++folder)
    fs::create_directory(child("downloads") / std::to_string(folder));
  EXPECT_EQ(code_of([&] { stage(); }), "launcher_storage_full");
  // As a kill leaves a file while it is removed.
  put_file(child("downloads/half"), "half");
  const auto inode = std::to_string(posix_files::node_at(child("downloads/half"))->st_ino);
  fs::rename(child("downloads/half"),
             child("downloads/.tavro-removed." + inode + "." + std::string(32, 'a') + ".tmp"));
  const auto plan = clean_launcher_store(root, CleanupMode::plan).to_json();
  EXPECT_EQ(clean(), plan);
  expect_no_leftovers();
  // With nothing selected, it is what a bootstrap starts.
  EXPECT_EQ(store().fallback_active().at("build_id"), "1.0.0");
}

}  // namespace tavro::launcher_staging_test
