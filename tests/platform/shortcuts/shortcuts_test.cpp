#include "platform/shortcuts/shortcuts.h"

#include <sys/stat.h>

#include <cstdlib>
#include <iterator>

#include "documents/documents.h"
#include "platform/shortcuts/desktop_entry.h"
#include "platform/shortcuts/launch_document.h"

namespace tavro::shortcuts_test {

using testing::HasSubstr;
using testing::StartsWith;

const std::string ordinary = "Shortcut inputs need existing ordinary files and directories";

/// A data folder with a bootstrap that tells a pipe how it was started.
struct Shortcuts : testing::Test {
  Shortcuts() {
    // Others may change it, so that no link in it is the system's, even where root tests.
    fs::permissions(at, fs::perms(0770));
    setenv("XDG_DATA_HOME", (at / "share").c_str(), 1);
    mkfifo((at / "pipe").c_str(), 0600);
    shortcut.game = "space-game.2";
    use(at / "data");
  }
  void use(const fs::path& data) {
    shortcut = {data / "native/bootstrap/bin/tavro-bootstrap", data, shortcut.game, "Tavro"};
    fs::create_directories(shortcut.executable.parent_path());
    std::ofstream(shortcut.executable)
        << "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" >'" << (at / "pipe").string() << "'\n";
    fs::permissions(shortcut.executable, fs::perms(0700));
  }
  std::string refusal(const fs::path& path) const {
    return failure_of([&] { create_native_shortcut(shortcut, path); });
  }
  /// What the bootstrap tells when the desktop starts the entry.
  std::string started(const fs::path& entry) const {
    if (std::system(("gio launch '" + entry.string() + "'").c_str()) != 0) return "not started";
    std::ifstream pipe(at / "pipe");
    return {std::istreambuf_iterator<char>(pipe), {}};
  }

  TempFolder folder;
  const fs::path at = folder.path();
  DesktopShortcut shortcut;
};

TEST_F(Shortcuts, StartTheBootstrapOfExactlyTheirFolderAndGame) {
  for (const std::string name :
       {"plain", "My Games", R"(quotes " ' ` \ $HOME $(id) \\ \s \n)", "100%u %% %", "a=b c",
        "Spiele \xC3\xA4\xE6\xB8\xB8 <>|&;*?#()~", " both = and %f\\\"$"}) {
    use(at / "folders" / name);
    shortcut.name = name;
    const fs::path entry = native_menu_entry(shortcut.data_root, "space-game.2", name);
    create_native_shortcut(shortcut, entry);
    EXPECT_EQ(std::system(("desktop-file-validate '" + entry.string() + "'").c_str()), 0);
    EXPECT_EQ(started(entry), shortcut.executable.string() + "\n--gui\n--launch\nspace-game.2\n");
  }
  // A bootstrap that lies in no data folder is told which one to serve.
  shortcut.data_root = at / "other data";
  fs::create_directory(shortcut.data_root);
  create_native_shortcut(shortcut, at / "other.desktop");
  EXPECT_THAT(started(at / "other.desktop"),
              HasSubstr("\n--data-dir\n" + shortcut.data_root.string() + "\n--gui\n--launch\n"));
}

TEST_F(Shortcuts, SayWhatADesktopAsksFor) {
  shortcut.name = " Fox \\ Den";
  shortcut.game.clear();
  shortcut.icon = "/icons/fox.png";
  const std::string program = shortcut.executable.string();
  EXPECT_EQ(linux_desktop_entry(shortcut),
            "[Desktop Entry]\nType=Application\nVersion=1.0\nName=\\sFox \\\\ Den\n"
            "Icon=/icons/fox.png\nExec=" +
                program + " --gui\nTryExec=" + program +
                "\nTerminal=false\nStartupNotify=true\nCategories=Game;\n");
  for (const std::string& name : {std::string(), std::string(513, 'n'), std::string("a\nExec=b"),
                                  std::string("\x7f"), std::string("\xFF")}) {
    shortcut.name = name;
    EXPECT_EQ(code_of([&] { linux_desktop_entry(shortcut); }), "shortcut_text");
  }
}

TEST_F(Shortcuts, GoToTheUsersMenuUnderAStableName) {
  EXPECT_EQ(linux_menu_directory("/data//x/", "/home/a"), "/data/x/applications");
  EXPECT_EQ(linux_menu_directory("relative", "/home/a"), "/home/a/.local/share/applications");
  EXPECT_EQ(code_of([] { linux_menu_directory("", "relative"); }), "user_path");
  const fs::path entry = native_menu_entry(at / "data", "", "one");
  EXPECT_EQ(native_menu_entry(at / "x/../data", "", "two"), entry);
  EXPECT_TRUE(native_menu_entry(at, "fox", "").native().ends_with("-game-fox.desktop"));
  EXPECT_NE(native_menu_entry(at / "Data", "", ""), entry);
  EXPECT_EQ(code_of([&] { native_menu_entry(at, "../x", ""); }), "invalid_identity");
}

TEST_F(Shortcuts, RefuseEveryUnfitPlaceAndChangeNothing) {
  fs::create_directories(at / "launcher/staging/deep");
  fs::create_directory_symlink(at, at / "link");
  std::ofstream(at / "file.desktop") << "mine";
  const std::vector<std::pair<fs::path, std::string>> rows = {
      {"relative.desktop", "Shortcut paths must be absolute and normalized"},
      {at / "x.tavro-launch", "Desktop entries must end in .desktop"},
      {at / "link/x.desktop", "Shortcut path contains a symbolic link"},
      {at / "data/native/x.desktop", "Desktop entries must be outside application data"},
      {at / "launcher/staging/deep/x.desktop",
       "Desktop entries must be outside managed launcher payloads"},
      {at / "file.desktop", "Desktop-entry destination already exists; it was preserved"},
  };
  for (const auto& [path, failure] : rows) EXPECT_THAT(refusal(path), HasSubstr(": " + failure));
  EXPECT_EQ(read_file(at / "file.desktop", 10), "mine");
  fs::remove(shortcut.executable);
  EXPECT_EQ(refusal(at / "x.desktop"), "shortcut_path: " + ordinary);
  EXPECT_FALSE(fs::exists(at / "share") || fs::exists(at / "x.desktop"));
}

TEST_F(Shortcuts, ReadOnlyWholeLaunchDocuments) {
  const std::string text = macos_launch_document(shortcut);
  EXPECT_EQ(macos_launch_document(parse_macos_launch_document(text)), text);
  expect_answers(R"(shortcut_document: Unknown launch document fields|/name|/run "rm"
unsupported_schema: Unknown launch document schema was pre|/schema_version 2
unsupported_schema: |/kind "tavro-shortcuts"
shortcut_document: Launch document choices must be strings|/name 7
shortcut_text: |/name ""
shortcut_path: |/bootstrap "/"
unsafe_path: |/data_root "/a\u0000b"
invalid_identity: |/game_id "a/b")",
                 [&](const std::string& damage) {
                   parse_macos_launch_document(damaged(json::parse(text), damage).dump());
                 });
  const std::string longer = text + std::string(32768, ' ');
  EXPECT_EQ(code_of([&] { parse_macos_launch_document(longer); }), "size_limit");
}

TEST_F(Shortcuts, RegisterTheHandlerBesideTheBootstrapBeforeADocumentIsMade) {
  const fs::path application = shortcut.executable.parent_path() / "TavroShortcut.app";
  const fs::path document = at / "x.tavro-launch";
  std::string registered;
  bool answer = false;
  const auto handler = [&](const std::string& path) { return registered = path, answer; };
  const auto create = [&] {
    return failure_of([&] { create_macos_launch_document(shortcut, document, handler); });
  };
  EXPECT_EQ(create(), "shortcut_path: " + ordinary);
  fs::create_directories(application / "Contents/MacOS");
  std::ofstream(application / "Contents/Info.plist") << "";
  std::ofstream(application / "Contents/MacOS/tavro-shortcut") << "";
  EXPECT_THAT(create(), StartsWith("shortcut_api: "));
  EXPECT_FALSE(fs::exists(document));
  answer = true;
  EXPECT_EQ(create(), "");
  EXPECT_EQ(registered, application.string());
  EXPECT_EQ(read_file(document, 32768), macos_launch_document(shortcut));
}

}  // namespace tavro::shortcuts_test
