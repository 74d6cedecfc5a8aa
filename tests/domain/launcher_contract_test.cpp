#include "domain/launcher_contract.h"

#include "domain/documents.h"

namespace tavro {
namespace {

// A payload of two front ends, one ordinary file and this many helpers.
json descriptor(int helpers = 1) {
  json files = {file_entry("cli", 0755), file_entry("gui", 0755), file_entry("data")};
  json owned = json::array();
  for (int index = 0; index < helpers; ++index) {
    const std::string path = "helper" + std::to_string(index);
    files.push_back(file_entry(path, 0755));
    owned.push_back({{"path", path}, {"role", "maintenance"}, {"lease_abi", 1}});
  }
  json document = snapshot_document("cli", files);
  document.update(json::parse(R"({"kind": "tavro-launcher-release", "bootstrap_abi": 1,
      "health_abi": 1, "application_schema": {"minimum": 1, "maximum": 5}, "staging_abi": 1,
      "runtime_lease_abi": 2, "console_interrupt_abi": 1, "gui_executable": "gui"})"));
  document["runtime_helpers"] = owned;
  return document;
}

TEST(LauncherContract, RefusesADescriptorOfAnotherContract) {
  const std::string again = "/runtime_helpers/1 " + descriptor()["runtime_helpers"][0].dump();
  const Answers answers = {
      {"unsupported_schema", {" []", "/kind \"tavro-bootstrap-release\""}},
      {"malformed fields", {"/schema_version", "/gui_executable", "/runtime_helpers/0/path 1"}},
      {"another native bootstrap ABI", {"/bootstrap_abi 2", "/health_abi 1.0"}},
      {"cannot preserve the current", {"/application_schema/minimum 2"}},
      {"invalid_version", {"/application_schema/minimum 0"}},
      {"Unknown snapshot platform", {"/platform \"other\""}},
      {"lacks its runtime contract", {"/runtime_lease_abi"}},
      {"Unsupported launcher runtime contract",
       {"/runtime_lease_abi 1", "/staging_abi 1.0", "/console_interrupt_abi \"1\""}},
      {"size_limit: Launcher payload", {"/archive/length 1073741825"}},
      {"unsafe_path", {"/gui_executable \"con\""}},
      {"GUI launcher executable is missing",
       {"/gui_executable \"data\"", "/gui_executable \"other\""}},
      {"GUI and CLI need separate", {"/gui_executable \"cli\""}},
      {"must be a bounded list", {"/runtime_helpers {}"}},
      {"ownership fields are invalid",
       {"/runtime_helpers/0/more 1", R"(/runtime_helpers/0 {"path":"a","role":"b","abi":1})"}},
      {"Unsupported native helper ownership",
       {"/runtime_helpers/0/role \"daemon\"", "/runtime_helpers/0/lease_abi 1.0"}},
      {"overlaps a frontend",
       {"/runtime_helpers/0/path \"cli\"", "/runtime_helpers/0/path \"data\"", again}},
      {"needs declared lifetime ownership", {"/runtime_helpers []"}}};
  expect_answers(answers, [](const std::string& damage) {
    LauncherManifest::parse(damaged(descriptor(), damage));
  });
  const Answers counts = {{"", {"0", "16"}}, {"bounded list", {"17"}}, {"size_limit", {"4094"}}};
  expect_answers(counts, [](const std::string& count) {
    const auto manifest = LauncherManifest::parse(descriptor(std::stoi(count)));
    EXPECT_EQ(std::to_string(manifest.runtime_helpers.size()), count);
  });
}

TEST(LauncherContract, MatchesNoHealthDocumentButItsOwn) {
  const LauncherManifest manifest = LauncherManifest::parse(descriptor());
  const json attempt = {{"nonce", "n"}, {"reference", {{"manifest_sha256", "m"}}}};
  const auto matches = [&](const json& document, const char* interface, bool interrupt) {
    return manifest.matches_startup_health(document, attempt, 77, interface, interrupt);
  };
  const json cli = manifest.startup_health(attempt, 77, "cli", true);
  EXPECT_EQ(cli.dump(),
            R"({"application_schema":1,"build_id":"build-1","console_interrupt_abi":1,)"
            R"("health_abi":1,"interface":"cli","manifest_sha256":"m","nonce":"n","pid":77,)"
            R"("schema_version":1,"state":"ready"})");
  EXPECT_TRUE(matches(json::parse(cli.dump()), "cli", true));
  EXPECT_FALSE(matches(cli, "cli", false));
  EXPECT_FALSE(matches(cli, "gui", true));
  EXPECT_FALSE(matches(manifest.startup_health(attempt, 77, "cli", false), "cli", true));
  EXPECT_TRUE(matches(manifest.startup_health(attempt, 77, "gui", true), "gui", true));
  for (const char* damage : {" []", "/more 1", "/pid 78", "/pid 77.0", "/pid", "/nonce \"o\"",
                             "/health_abi 1.0", "/console_interrupt_abi 1.0"})
    EXPECT_FALSE(matches(damaged(cli, damage), "cli", true)) << damage;
  EXPECT_EQ(lease_document(manifest, attempt, 77, "gui").dump(),
            R"({"application_schema":1,"build_id":"build-1","interface":"gui",)"
            R"("manifest_sha256":"m","nonce":"n","pid":77,"runtime_lease_abi":2,)"
            R"("schema_version":1,"state":"leased"})");
  for (const auto& [pid, interface] : {std::pair(0u, "cli"), {7u, "web"}})
    EXPECT_EQ(code_of([&, p = pid, i = interface] { lease_document(manifest, attempt, p, i); }),
              "launcher_health");
}

}  // namespace
}  // namespace tavro
