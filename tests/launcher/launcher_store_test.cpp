#include "launcher/launcher_store.h"

#include <future>

#include "installation/own_files.h"
#include "installation/repair_advice.h"
#include "launcher/launcher_download.h"
#include "launcher/store_repair.h"
#include "platform/archives/snapshot.h"
#include "platform/files/managed_tree.h"
#include "support/sealed_package.h"

namespace tavro::launcher_store_test {

class Store : public testing::Test {
 protected:
  /// A version of this build, as far as the store looks at one, made so many hours ago.
  json version(const std::string& build, int age) {
    auto manifest = json::parse(descriptor);
    manifest["build_id"] = build;
    const auto name = digest(manifest.dump(), "sha256");
    write("manifests/" + name + ".json", manifest.dump());
    const auto payload = store.directory() / "versions" / name;
    fs::create_directory(payload);
    fs::last_write_time(payload, fs::file_time_type::clock::now() - std::chrono::hours(age));
    return {{"manifest_sha256", name}, {"build_id", build}};
  }
  void write(const std::string& path, const std::string& text) {
    std::ofstream(store.directory() / path) << text;
  }
  std::string stored() { return read_file(store.directory() / "installation.json", 100000); }

  json seed() { return store.seed_initial(descriptor, package.path("launcher_archive")); }

  TempFolder folder;
  SealedPackage package{folder.path()};
  std::string descriptor = read_file(package.path("launcher_manifest"), 524288);
  fs::path root = folder.path() / "data";
  LauncherStore store{root};
};

TEST_F(Store, SavesARecordWithinItsBoundsOrKeepsTheOldOne) {
  auto record = store.load();
  EXPECT_FALSE(fs::exists(store.directory() / "installation.json"));
  record["active"] = version("1.0.0", 0);
  record["pad"] = "";
  record["pad"] = std::string(32768 - record.dump().size(), 'x');
  store.save(record);
  const auto saved = stored();
  EXPECT_EQ(saved.size(), 32768U);
  EXPECT_EQ(LauncherStore::existing(root)->load().at("generation"), 1);
  EXPECT_TRUE(store.status().at("installed").get<bool>());
  record["pad"].get_ref<std::string&>() += 'x';
  EXPECT_EQ(code_of([&] { store.save(record); }), "size_limit");
  record["generation"] = UINT64_MAX;
  EXPECT_EQ(code_of([&] { store.save(record); }), "launcher_state");
  EXPECT_TRUE(stored() == saved);
}

TEST_F(Store, KeepsWhatItDoesNotKnowInARecord) {
  const json reference = {
      {"manifest_sha256", std::string(64, 'a')}, {"build_id", "1"}, {"more", {1, {{"a", ""}}}}};
  const json attempt = {{"nonce", std::string(32, 'a')}, {"reference", reference}, {"since", 7}};
  auto record = store.load();
  record.update({{"generation", 1}, {"active", reference}, {"attempt", attempt}, {"x", nullptr}});
  for (const json& failed : {json{{"reference", nullptr}},
                             {{"reference", reference}, {"code", 5}},
                             {{"reference", reference}, {"problem", 7}, {"reason", ""}}}) {
    record["failed_candidate"] = failed;
    write("installation.json", record.dump());
    EXPECT_EQ(store.load(), record);
    store.save(store.record());
    record["generation"] = record.at("generation").get<int>() + 1;
    EXPECT_EQ(stored(), record.dump());
  }
}

TEST_F(Store, NamesTheFileThatKeepsItFromWorkAndMendsItsLocks) {
  const auto reference = version("1.0.0", 0);
  const auto owner = store.directory() / "bootstrap.lock";
  const auto lease = store.directory() / "leases/versions" /
                     (store.payload(reference).filename().string() + ".lock");
  const auto work = [&] { store.owner(), store.version_guard(reference, LockMode::shared); };
  const auto refused = [&](const fs::path& file, const std::string& code) {
    try {
      work();
      ADD_FAILURE() << file;
    } catch (const Error& error) {
      EXPECT_EQ(error.code, code);
      EXPECT_THAT(error.what(), testing::HasSubstr(file.string()));
      EXPECT_THAT(error.next_commands, testing::ElementsAre(repair_command(root)));
    }
  };
  work();
  for (const auto& lock : {owner, lease}) {
    fs::permissions(lock, fs::perms::all);
    refused(lock, "lock_failed");
    EXPECT_EQ(mend_locks(DataPaths(root)).size(), 1U);
    work();
    fs::remove(lock);
    fs::create_directory(lock);
    refused(lock, "lock_failed");
    EXPECT_EQ(mend_locks(DataPaths(root)).size(), 1U);
    work();
  }
  write("installation.json", "{");
  EXPECT_FAILURE(store.record(), "invalid_json: Not a whole JSON document: " +
                                     (store.directory() / "installation.json").string());
  fs::remove(store.directory() / "installation.json");
  fs::remove_all(store.directory() / "leases");
  write("leases", "");
  EXPECT_THAT(failure_of([&] { LauncherStore{root}; }),
              testing::HasSubstr((store.directory() / "leases").string()));
  EXPECT_EQ(repair_command("/a b/it's"), "tavro-install repair --data-dir '/a b/it'\\''s'");
}

TEST_F(Store, IsMendedWithoutALookAtItsActiveVersion) {
  auto record = store.record();
  const auto candidate = LauncherReference::parse(seed());
  const auto active = LauncherReference::parse(version("0.9.0", 0));
  const auto tree = store.payload(candidate);
  record.active = record.rollback = active;
  record.candidate = candidate;
  store.save(record);
  EXPECT_TRUE(mend_launcher_store(root).empty());
  const auto link = [&](const fs::path& path) {
    fs::remove_all(path);
    fs::create_symlink(folder.path(), path);
  };
  const std::map<std::string, std::function<void()>> damages = {
      {"folder", [&] { link(store.directory() / "leases"); }},
      {"entry", [&] { link(store.directory() / "downloads/x"); }},
      {"name", [&] { write("health/a:b", ""); }},
      {"receipt", [&] { write("download-intents/x", ""); }},
      {"descriptor", [&] { write("manifests/" + candidate.manifest_sha256 + ".json", "{}"); }},
      {"tree", [&] { write("versions/" + candidate.manifest_sha256 + "/odd", ""); }},
      {"link in a tree", [&] { link(tree / "bin"); }},
      {"version", [&] { fs::remove_all(tree); }}};
  const TempFolder kept;
  fs::copy(root, kept.path() / "data", fs::copy_options::recursive);
  for (const auto& [name, damage] : damages) {
    SCOPED_TRACE(name);
    fs::remove_all(root);
    fs::copy(kept.path() / "data", root, fs::copy_options::recursive);
    damage();
    EXPECT_FALSE(mend_launcher_store(root).empty());
    EXPECT_TRUE(mend_launcher_store(root).empty());
    EXPECT_GT(tree_bytes(store.directory(), 1000), 0U);
    EXPECT_EQ(store.record().active, active);
    launcher_download_receipts(store.directory());
    const bool candidate_stands =
        name == "folder" || name == "entry" || name == "name" || name == "receipt";
    EXPECT_EQ(store.record().candidate.has_value(), candidate_stands);
    EXPECT_EQ(fs::exists(root / "native/set-aside"), name != "version");
  }
}

TEST_F(Store, PreservesARecordThatItCannotUse) {
  const json reference = {{"manifest_sha256", std::string(64, 'a')}, {"build_id", "1.0.0"}};
  const json attempt = {{"nonce", std::string(32, 'a')}, {"reference", reference}};
  auto record = store.load();
  record.update({{"generation", 1}, {"attempt", attempt}});
  write("installation.json", record.dump());
  EXPECT_EQ(store.selection(), record);
  // Only `generation` and a build that is no identifier are failures that `selection` lets pass.
  const std::vector<std::tuple<std::string, json, std::string>> rows = {
      {"/format", "tavro-launcher-store-v2", "unsupported_schema"},
      {"/generation", 0, "invalid_version"},
      {"/active", 7, "launcher_state"},
      {"/rollback", {{"manifest_sha256", std::string(64, 'A')}}, "launcher_state"},
      {"/attempt/reference/build_id", "A", "invalid_identity"},
      {"/attempt/reference", nullptr, "launcher_state"},
      {"/attempt/nonce", std::string(31, 'a'), "launcher_state"},
      {"/candidate", reference, "launcher_state"},
      {"/failed_candidate", json::object(), "launcher_state"},
      {"/pad", std::string(32768, 'x'), "size_limit"},
      {"", nullptr, "invalid_json"},
  };
  for (const auto& [at, value, code] : rows) {
    auto damaged = record;
    damaged[json::json_pointer(at)] = value;
    const auto text = damaged.is_null() ? record.dump().substr(1) : damaged.dump();
    write("installation.json", text);
    EXPECT_EQ(code_of([&] { LauncherStore{root}; }), code) << text;
    EXPECT_EQ(code_of([&] { EXPECT_FALSE(store.selection()); }),
              code.starts_with("invalid_") && !damaged.is_null() ? code : "");
    EXPECT_EQ(stored(), text);
  }
}

TEST_F(Store, LeasesAVersionOnlyAsFarAsItsContractIsProved) {
  const auto lease = [&](const json& reference, LockMode mode) {
    return code_of([&] { store.version_guard(reference, mode); });
  };
  const auto good = version("1.0.0", 0);
  const auto running = store.version_guard(good, LockMode::shared);
  EXPECT_EQ(lease(good, LockMode::exclusive), "busy");
  const auto other = version("2.0.0", 0);
  EXPECT_EQ(lease(other, LockMode::exclusive), "");
  auto renamed = other;
  renamed["build_id"] = "2.0.1";
  EXPECT_EQ(code_of([&] { store.manifest(renamed); }), "launcher_state");
  write("manifests/" + other["manifest_sha256"].get<std::string>() + ".json", "{}");
  EXPECT_EQ(code_of([&] { store.manifest(other); }), "content_mismatch");
  EXPECT_EQ(lease(other, LockMode::exclusive), "launcher_recovery_uncertain");
  EXPECT_EQ(lease(other, LockMode::shared), "");
}

TEST_F(Store, FallsBackToTheNewestVersionThatIsProved) {
  EXPECT_EQ(code_of([&] { store.fallback_active(); }), "launcher_missing");
  version("1.0.0", 3);
  const auto expected = version("1.1.0", 2);
  const auto damaged = store.payload(version("1.2.0", 1));
  write("manifests/" + damaged.filename().string() + ".json", "{\"build_id\":\"1.2.0\"}");
  const auto linked = store.payload(version("1.3.0", 0));
  fs::remove(linked);
  fs::create_directory_symlink(damaged, linked);
  for (int i = 0; i < 60; ++i) write("versions/" + std::to_string(i), "");
  EXPECT_EQ(store.fallback_active(), expected);
  write("versions/one too many", "");
  EXPECT_EQ(code_of([&] { store.fallback_active(); }), "launcher_state");
}

TEST_F(Store, GivesItsOwnerLockToOneAndToTheNextInTime) {
  auto owner = store.owner();
  EXPECT_EQ(code_of([&] { store.owner(); }), "busy");
  auto next = std::async(std::launch::async, [&] { return store.owner(); });
  EXPECT_EQ(next.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  owner.reset();
  EXPECT_TRUE(next.get());
}

TEST_F(Store, IsSeededOnceWithACandidate) {
  seed();
  const auto candidate = store.load().at("candidate");
  verify_snapshot_tree(store.manifest(candidate), store.payload(candidate));
  EXPECT_FALSE(store.status().at("installed").get<bool>());
  const auto before = stored();
  EXPECT_EQ(code_of([&] { seed(); }), "already_installed");
  EXPECT_EQ(stored(), before);
  std::ofstream(root / ".tavro-setup-incomplete") << "{}";
  EXPECT_EQ(code_of([&] { LauncherStore{root}; }), "native_install_incomplete");
  EXPECT_EQ(code_of([&] { LauncherStore(root, true); }), "");
}

}  // namespace tavro::launcher_store_test
