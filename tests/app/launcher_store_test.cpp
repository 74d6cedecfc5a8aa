#include "app/launcher_store.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <future>

#include "domain/crypto.h"
#include "domain/input.h"
#include "support/failure.h"
#include "support/sealed_package.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

class Store : public testing::Test {
 protected:
  /// A version of this build, as far as the store looks at one, made so many hours ago.
  json version(const std::string& build, int age) {
    auto descriptor = json::parse(read_file(package.path("launcher_manifest"), 524288));
    descriptor["build_id"] = build;
    const auto name = digest(descriptor.dump(), "sha256");
    write("manifests/" + name + ".json", descriptor.dump());
    const auto payload = store.directory() / "versions" / name;
    fs::create_directory(payload);
    fs::last_write_time(payload, fs::file_time_type::clock::now() - std::chrono::hours(age));
    return {{"manifest_sha256", name}, {"build_id", build}};
  }
  void write(const std::string& path, const std::string& text) {
    std::ofstream(store.directory() / path) << text;
  }
  std::string stored() { return read_file(store.directory() / "installation.json", 100000); }

  TempFolder folder;
  SealedPackage package{folder.path()};
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
  record["pad"] = std::string(32769 - record.dump().size(), 'x');
  EXPECT_EQ(code_of([&] { store.save(record); }), "size_limit");
  record["generation"] = UINT64_MAX;
  EXPECT_EQ(code_of([&] { store.save(record); }), "launcher_state");
  EXPECT_EQ(stored(), saved);
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
      {"", json::array(), "launcher_state"},
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
  EXPECT_EQ(lease(good, LockMode::shared), "");
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
  EXPECT_EQ(lease(nullptr, LockMode::shared), "launcher_missing");
}

TEST_F(Store, FallsBackToTheNewestVersionThatIsProved) {
  const auto versions = store.directory() / "versions";
  EXPECT_EQ(code_of([&] { store.fallback_active(); }), "launcher_missing");
  version("1.0.0", 3);
  const auto expected = version("1.1.0", 2);
  const auto damaged = version("1.2.0", 1)["manifest_sha256"].get<std::string>();
  write("manifests/" + damaged + ".json", "{\"build_id\":\"1.2.0\"}");
  write("versions/" + std::string(64, 'f'), "a file");
  fs::create_directory_symlink(store.payload(expected), versions / std::string(64, 'e'));
  for (int i = 0; i < 59; ++i) write("versions/" + std::to_string(i), "");
  EXPECT_EQ(store.fallback_active(), expected);
  fs::create_directory(versions / std::string(63, 'd'));
  EXPECT_EQ(code_of([&] { store.fallback_active(); }), "launcher_state");
}

TEST_F(Store, GivesItsOwnerLockToOneAndToTheNextInTime) {
  auto owner = store.owner();
  EXPECT_EQ(code_of([&] { store.owner(); }), "busy");
  auto next = std::async(std::launch::async, [&] { return store.owner(); });
  owner.reset();
  EXPECT_TRUE(next.get());
}

TEST_F(Store, OpensOnlyWhereSetupHasFinishedAndNoLinkLeadsAway) {
  const auto fresh = folder.path() / "fresh";
  EXPECT_EQ(code_of([&] { LauncherStore::existing(fresh); }), "unsafe_path");
  EXPECT_FALSE(fs::exists(fresh));
  fs::create_directory(fresh);
  fs::create_directory_symlink(store.directory(), fresh / "launcher");
  EXPECT_EQ(code_of([&] { LauncherStore{fresh}; }), "unsafe_path");
  std::ofstream(root / ".tavro-setup-incomplete") << "{}";
  EXPECT_EQ(code_of([&] { LauncherStore{root}; }), "native_install_incomplete");
  EXPECT_EQ(code_of([&] { LauncherStore(root, true); }), "");
}

}  // namespace
}  // namespace tavro
