#include "domain/bootstrap_contract.h"

#include "domain/documents.h"

namespace tavro {
namespace {

const std::string kEntry = "bin/tavro-bootstrap";
const std::string kGui(kBootstrapWindowsGui), kShortcut(kBootstrapMacShortcut);
const std::string kPlist(kBootstrapMacShortcutPlist);

// A snapshot with the first of these executables as its entry, and the metadata of the Mac helper.
SnapshotManifest bootstrap(const std::string& platform, const std::vector<std::string>& executables,
                           const std::string& damage, bool plist_is_executable = false) {
  SnapshotManifest manifest;
  manifest.document = damaged(
      {{"schema_version", 1}, {"bootstrap_abi", 1}, {"kind", "tavro-bootstrap-release"}}, damage);
  manifest.platform = platform;
  manifest.executable = executables[0];
  for (const std::string& path : executables) manifest.files[path].executable = true;
  if (executables.back() == kShortcut) manifest.files[kPlist].executable = plist_is_executable;
  return manifest;
}

TEST(BootstrapContract, AllowsTheDeclaredExecutablesOfEachPlatformAndNoOthers) {
  const std::string linux_id = "linux-x86_64", mac = "macos-aarch64", windows = "windows-x86_64";
  const std::string none = "/notes 1", exe = kEntry + ".exe";
  const std::string gui = "/gui_executable \"" + kGui + '"';
  const std::string shortcut = "/shortcut_executable \"" + kShortcut + '"';
  const std::map<std::string, std::vector<SnapshotManifest>> rows = {
      {"",
       {bootstrap(linux_id, {kEntry}, none), bootstrap(mac, {kEntry}, none),
        bootstrap(mac, {kEntry, kShortcut}, shortcut), bootstrap(windows, {exe}, none),
        bootstrap(windows, {exe, kGui}, gui)}},
      {"schema or ABI",
       {bootstrap(mac, {kEntry}, "/bootstrap_abi 1.0"), bootstrap(mac, {kEntry}, "/kind")}},
      {"unsupported platform", {bootstrap("linux-aarch64", {kEntry}, none)}},
      {"stable entry point", {bootstrap(mac, {exe}, none), bootstrap(windows, {kEntry}, none)}},
      {"Windows windowed executable",
       {bootstrap(linux_id, {kEntry, kGui}, gui), bootstrap(windows, {exe}, gui),
        bootstrap(linux_id, {kEntry}, "/gui_executable null")}},
      {"native app helper",
       {bootstrap(linux_id, {kEntry, kShortcut}, shortcut), bootstrap(mac, {kEntry}, shortcut),
        bootstrap(mac, {kEntry, kShortcut}, shortcut, true)}},
      {"undeclared executable",
       {bootstrap(mac, {kEntry, kShortcut}, none), bootstrap(windows, {exe, kGui}, none)}}};
  for (const auto& [words, manifests] : rows)
    for (const SnapshotManifest& manifest : manifests) {
      const std::string failure = failure_of([&] { validate_bootstrap_contract(manifest); });
      EXPECT_THAT(failure, testing::HasSubstr(words)) << manifest.platform << manifest.document;
      EXPECT_EQ(failure.empty(), words.empty()) << failure;
    }
}

}  // namespace
}  // namespace tavro
