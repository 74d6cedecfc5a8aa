#include "documents/launcher_contract.h"

#include "documents/bootstrap_contract.h"
#include "documents/documents.h"
#include "publisher/descriptors.h"

namespace tavro {

// A payload of two front ends, one ordinary file and this many helpers.
static json descriptor(int helpers = 1) {
  std::vector<std::string> files = {"+cli", "+gui", "data"};
  LauncherContract contract{"gui", {}};
  while (helpers-- > 0) {
    files.push_back("+helper" + std::to_string(helpers));
    contract.helpers[files.back().substr(1)] = "maintenance";
  }
  return launcher_document(snapshot_of(files), contract);
}

TEST(LauncherContract, RefusesADescriptorOfAnotherContract) {
  expect_answers(
      R"(|/application_schema/maximum 5
unsupported_schema|[]|/kind "tavro-bootstrap-release"
invalid_manifest: Launcher|/schema_version|/gui_executable|/runtime_helpers/0/path 1
another native bootstrap ABI|/bootstrap_abi 2|/health_abi 1.0
application data schema|/application_schema {"minimum":2,"maximum":3}
invalid_version|/application_schema/minimum 0
runtime contract|/runtime_lease_abi|/runtime_lease_abi 1|/staging_abi 1.0|/console_interrupt_abi "1"
size_limit|/archive/length 1073741825
unsafe_path|/gui_executable "con"
invalid_manifest: GUI|/gui_executable "data"|/gui_executable "cli"
fields are invalid|/runtime_helpers/0/more 1|/runtime_helpers/0 {"path":"a","role":"b","abi":1}
Unsupported native helper|/runtime_helpers/0/role "daemon"|/runtime_helpers/0/lease_abi 1.0
overlaps a frontend|/runtime_helpers/0/path "cli"|/runtime_helpers/0/path "data"
overlaps a frontend|/runtime_helpers/1 {"path":"helper0","role":"maintenance","lease_abi":1}
lifetime ownership|/runtime_helpers [])",
      [](const std::string& damage) { LauncherManifest::parse(damaged(descriptor(), damage)); });
  for (const auto& [helpers, code] :
       {std::pair(0, ""), {16, ""}, {17, "launcher_incompatible"}, {4094, "size_limit"}})
    EXPECT_EQ(code_of([count = helpers] { LauncherManifest::parse(descriptor(count)); }), code);
}

TEST(LauncherContract, MatchesNoHealthDocumentButItsOwn) {
  const LauncherManifest manifest = LauncherManifest::parse(descriptor());
  const json attempt = {{"nonce", "n"}, {"reference", {{"manifest_sha256", "m"}}}};
  const auto matches = [&](const json& document, const char* interface, bool interrupt) {
    return manifest.matches_startup_health(document, attempt, 77, interface, interrupt);
  };
  const json cli = json::parse(R"({"schema_version": 1, "health_abi": 1, "nonce": "n", "pid": 77,
      "manifest_sha256": "m", "build_id": "build-1", "application_schema": 1, "state": "ready",
      "interface": "cli", "console_interrupt_abi": 1})");
  EXPECT_EQ(manifest.startup_health(attempt, 77, "cli", true), cli);
  EXPECT_TRUE(matches(cli, "cli", true));
  EXPECT_FALSE(matches(cli, "cli", false));
  EXPECT_FALSE(matches(manifest.startup_health(attempt, 77, "cli", false), "cli", true));
  for (const char* damage : {"[]", "/more 1", "/pid 78", "/pid 77.0", "/pid", "/nonce \"o\"",
                             "/health_abi 1.0", "/console_interrupt_abi 1.0"})
    EXPECT_FALSE(matches(damaged(cli, damage), "cli", true)) << damage;
  json lease = damaged(manifest.startup_health(attempt, 77, "cli", false), "/health_abi");
  lease.update({{"runtime_lease_abi", 2}, {"state", "leased"}});
  EXPECT_EQ(lease_document(manifest, attempt, 77, "cli"), lease);
  EXPECT_EQ(code_of([&] { lease_document(manifest, attempt, 0, "cli"); }), "launcher_health");
}

// The first file is the entry point; "-" stands before what is not executable.
static std::string refusal(const std::string& platform, const std::vector<std::string>& files,
                           const json& members = json::object()) {
  SnapshotManifest manifest;
  manifest.document = {
      {"schema_version", 1}, {"bootstrap_abi", 1}, {"kind", "tavro-bootstrap-release"}};
  manifest.document.update(members);
  manifest.platform = platform;
  manifest.executable = files[0];
  for (const std::string& file : files)
    manifest.files[file.substr(file[0] == '-')].executable = file[0] != '-';
  return code_of([&] { validate_bootstrap_contract(manifest); });
}

TEST(BootstrapContract, AllowsTheDeclaredExecutablesOfEachPlatformAndNoOthers) {
  const std::string mac = "macos-aarch64", windows = "windows-x86_64",
                    entry = "bin/tavro-bootstrap";
  const std::string exe = entry + ".exe", gui = "bin/tavro-bootstrap-gui.exe";
  const std::string app = "bin/TavroShortcut.app/Contents/", tool = app + "MacOS/tavro-shortcut";
  const std::string plist = app + "Info.plist";
  const json has_gui = {{"gui_executable", gui}}, has_tool = {{"shortcut_executable", tool}};
  EXPECT_EQ(refusal("linux-x86_64", {entry}) + refusal(mac, {entry}) + refusal(windows, {exe}), "");
  EXPECT_EQ(refusal(windows, {exe, gui}, has_gui), "");
  EXPECT_EQ(refusal(mac, {entry, tool, "-" + plist}, has_tool), "");
  for (const std::string& code :
       {refusal(mac, {entry}, {{"bootstrap_abi", 1.0}}), refusal(mac, {entry}, {{"kind", 1}}),
        refusal("linux-aarch64", {entry}), refusal(mac, {exe}), refusal(windows, {entry})})
    EXPECT_EQ(code, "launcher_incompatible");
  for (const std::string& code :
       {refusal("linux-x86_64", {entry, gui}, has_gui), refusal(windows, {exe, "-" + gui}, has_gui),
        refusal("linux-x86_64", {entry, tool, "-" + plist}, has_tool), refusal(windows, {exe, gui}),
        refusal(mac, {entry, tool}, has_tool), refusal(mac, {entry, tool, plist}, has_tool),
        refusal(mac, {entry, tool, "-" + plist})})
    EXPECT_EQ(code, "invalid_native_package");
}

}  // namespace tavro
