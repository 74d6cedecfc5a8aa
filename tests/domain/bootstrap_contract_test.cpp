#include "domain/bootstrap_contract.h"

#include "domain/documents.h"

namespace tavro {

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
