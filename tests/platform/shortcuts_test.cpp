#include "platform/shortcuts.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "domain/input.h"
#include "domain/unique_fd.h"
#include "platform/desktop_entry.h"
#include "platform/launch_document.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr char bounded[] =
    "shortcut_text: Shortcut text must be bounded and contain no control characters";
constexpr char ordinary[] =
    "shortcut_path: Shortcut inputs need existing ordinary files and directories";

/// A data folder with a bootstrap that tells a pipe how it was started.
struct Shortcuts : testing::Test {
  Shortcuts() {
    // Others may change it, so that no link in it is the system's, even where root tests.
    fs::permissions(at, fs::perms(0770));
    setenv("XDG_DATA_HOME", (at / "share").c_str(), 1);
    mkfifo((at / "pipe").c_str(), 0600);
    use(at / "data");
  }

  void use(const fs::path& data) {
    shortcut.data_root = data;
    shortcut.executable = data / "native/bootstrap/bin/tavro-bootstrap";
    shortcut.name = "Tavro";
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
    const UniqueFd pipe(::open((at / "pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(std::system(("gio launch '" + entry.string() + "'").c_str()), 0);
    std::string told;
    pollfd waiting{pipe.get(), POLLIN, 0};
    while (poll(&waiting, 1, 20000) == 1) {
      char block[4096];
      const ssize_t count = read_some(pipe.get(), block, sizeof block);
      if (count <= 0) break;
      told.append(block, static_cast<std::size_t>(count));
    }
    return told;
  }

  TempFolder folder;
  const fs::path at = folder.path();
  DesktopShortcut shortcut;
};

TEST_F(Shortcuts, StartTheBootstrapOfExactlyTheirFolderAndGame) {
  for (const std::string name :
       {"plain", "My Games", R"(quotes " ' ` \ $HOME $(id) \\ \s \n)", "100%u %% %", "a=b c",
        "Spiele \xC3\xA4\xE6\xB8\xB8 <>|&;*?#()~", " both = and %f\\\"$"}) {
    SCOPED_TRACE(name);
    use(at / "folders" / name);
    for (const std::string game : {"", "space-game.2"}) {
      shortcut.game = game;
      shortcut.name = name;
      const fs::path entry = native_menu_entry(shortcut.data_root, game, name);
      EXPECT_EQ(create_native_shortcut(shortcut, entry).at("path"), entry.string());
      EXPECT_EQ(std::system(("desktop-file-validate '" + entry.string() + "'").c_str()), 0);
      EXPECT_EQ(started(entry), shortcut.executable.string() + "\n--gui\n" +
                                    (game.empty() ? "" : "--launch\n" + game + "\n"));
    }
  }
  // A bootstrap that lies in no data folder is told which one to serve.
  fs::create_directory(at / "other data");
  shortcut.data_root = at / "other data";
  create_native_shortcut(shortcut, at / "other.desktop");
  EXPECT_THAT(started(at / "other.desktop"),
              HasSubstr("\n--data-dir\n" + shortcut.data_root.string() + "\n--gui\n--launch\n"));
}

TEST_F(Shortcuts, SayWhatADesktopAsksFor) {
  shortcut.name = " Fox \\ Den";
  shortcut.icon = "/icons/fox.png";
  const std::string program = shortcut.executable.string();
  EXPECT_EQ(linux_desktop_entry(shortcut),
            "[Desktop Entry]\nType=Application\nVersion=1.0\nName=\\sFox \\\\ Den\n"
            "Icon=/icons/fox.png\nExec=" +
                program + " --gui\nTryExec=" + program +
                "\nTerminal=false\nStartupNotify=true\nCategories=Game;\n");
  for (const std::string& name :
       {std::string(), std::string(513, 'n'), std::string("a\nExec=b"), std::string("\x7f")}) {
    shortcut.name = name;
    EXPECT_EQ(failure_of([&] { linux_desktop_entry(shortcut); }), bounded);
  }
  shortcut.name = "\xFF";
  EXPECT_EQ(failure_of([&] { linux_desktop_entry(shortcut); }),
            "shortcut_text: Shortcut text must be valid UTF-8");
  shortcut.name = std::string(512, 'n');
  EXPECT_THAT(linux_desktop_entry(shortcut), HasSubstr(shortcut.name));
  shortcut.game = "Game x";
  EXPECT_EQ(code_of([&] { linux_desktop_entry(shortcut); }), "invalid_identity");
}

TEST_F(Shortcuts, GoToTheUsersMenuUnderAStableName) {
  EXPECT_EQ(native_shortcut_extension(), ".desktop");
  EXPECT_EQ(linux_menu_directory("/data//x/", "/home/a"), "/data/x/applications");
  for (const char* none : {"", "relative"})
    EXPECT_EQ(linux_menu_directory(none, "/home/a"), "/home/a/.local/share/applications");
  EXPECT_EQ(failure_of([] { linux_menu_directory("", "relative"); }),
            "user_path: Cannot locate the user's application menu");
  const fs::path entry = native_menu_entry(at / "data", "", "one");
  EXPECT_EQ(native_menu_entry(at / "x/../data", "", "two"), entry);
  EXPECT_EQ(entry.filename().string().size(), std::string("tavro--launcher.desktop").size() + 64);
  const fs::path game = native_menu_entry(at / "data", "fox", "");
  EXPECT_TRUE(game.native().ends_with("-game-fox.desktop"));
  EXPECT_NE(native_menu_entry(at / "Data", "", "").filename(), entry.filename());
  EXPECT_EQ(code_of([&] { native_menu_entry(at, "../x", ""); }), "invalid_identity");
  EXPECT_EQ(code_of([] { linux_menu_entry("", ""); }), "shortcut_path");
}

TEST_F(Shortcuts, RefuseEveryUnfitPlaceAndChangeNothing) {
  fs::create_directories(at / "launcher/staging/deep");
  fs::create_directory_symlink(at, at / "link");
  std::ofstream(at / "file.desktop") << "mine";
  fs::create_symlink("nowhere", at / "dangling.desktop");
  const std::string outside = "shortcut_path: Desktop entries must be outside ";
  const std::string taken =
      "already_exists: Desktop-entry destination already exists; it was preserved";
  const std::vector<std::pair<fs::path, std::string>> rows = {
      {"relative.desktop", "shortcut_path: Shortcut paths must be absolute and normalized"},
      {at / "../x.desktop", "shortcut_path: Shortcut paths must be absolute and normalized"},
      {at / "x.tavro-launch", "shortcut_path: Desktop entries must end in .desktop"},
      {at / "none/x.desktop",
       "shortcut_path: Custom shortcut destinations require an existing parent directory"},
      {at / "link/x.desktop", "unsafe_path: Shortcut path contains a symbolic link"},
      {at / "file.desktop/x.desktop",
       "shortcut_path: Shortcut paths need existing plain files and directories"},
      {at / "data/x.desktop", outside + "application data"},
      {at / "data/native/x.desktop", outside + "application data"},
      {at / "launcher/staging/deep/x.desktop", outside + "managed launcher payloads"},
      {at / "file.desktop", taken},
      {at / "dangling.desktop",
       "unsafe_path: Linux setup ancestry is linked, unavailable or changed"},
  };
  for (const auto& [path, failure] : rows) EXPECT_EQ(refusal(path), failure) << path;
  EXPECT_EQ(read_file(at / "file.desktop", 10), "mine");
  fs::remove(shortcut.executable);
  EXPECT_EQ(refusal(at / "x.desktop"), ordinary);
  EXPECT_FALSE(fs::exists(at / "share") || fs::exists(at / "x.desktop"));
}

TEST_F(Shortcuts, AreWholeOrNotThereWhereverWritingFails) {
  const fs::path entry = at / "menu/x.desktop";
  for (const Fault fault : {Fault::cut, Fault::fail}) {
    const int struck = strike_each_call(
        fault, EIO, [&] { fs::remove_all(at / "menu"), fs::create_directory(at / "menu"); },
        [&] { create_native_shortcut(shortcut, entry); },
        [&](const Stop& stop) {
          EXPECT_TRUE(fault == Fault::cut || fs::exists(entry) == stop.code.empty()) << stop.call;
          if (!fs::exists(entry)) return;
          EXPECT_EQ(read_file(entry, 65536), linux_desktop_entry(shortcut)) << stop.call;
        });
    EXPECT_GT(struck, 4);
  }
}

TEST_F(Shortcuts, ReadOnlyWholeLaunchDocuments) {
  shortcut.game = "fox";
  const std::string text = macos_launch_document(shortcut);
  const DesktopShortcut read = parse_macos_launch_document(text);
  EXPECT_EQ(macos_launch_document(read), text);
  EXPECT_EQ(read.executable, shortcut.executable);
  const auto without = [](const char* key) { return [=](json& j) { j.erase(key); }; };
  const auto with = [](const char* key, const json& value) {
    return [=](json& j) { j[key] = value; };
  };
  const std::string fields = "shortcut_document: Unknown launch document fields";
  const std::string schema = "unsupported_schema: Unknown launch document schema was preserved";
  const std::vector<std::pair<std::function<void(json&)>, std::string>> rows = {
      {without("name"), fields},
      {with("run", "rm"), fields},
      {[](json& j) {
         j = json::array({1, 2, 3, 4, 5, 6});
       },
       fields},
      {[](json& j) { j.erase("name"), j["Name"] = ""; },
       "shortcut_document: Incomplete launch document"},
      {with("schema_version", 2), schema},
      {with("schema_version", "1"), schema},
      {with("kind", "tavro-shortcuts"), schema},
      {with("name", 7), "shortcut_document: Launch document choices must be strings"},
      {with("name", ""), bounded},
      {with("bootstrap", "/"),
       "shortcut_path: Shortcut paths must be absolute and normalized below a filesystem root"},
      {with("data_root", std::string("/a\0b", 4)), "unsafe_path"},
      {with("game_id", "a/b"), "invalid_identity"},
  };
  for (const auto& [damage, failure] : rows) {
    json document = json::parse(text);
    damage(document);
    EXPECT_THAT(failure_of([&] { parse_macos_launch_document(document.dump()); }),
                testing::StartsWith(failure));
  }
  EXPECT_EQ(code_of([&] { parse_macos_launch_document(text + std::string(32768, ' ')); }),
            "size_limit");
}

TEST_F(Shortcuts, RegisterTheHandlerBesideTheBootstrapBeforeADocumentIsMade) {
  const fs::path application = shortcut.executable.parent_path() / "TavroShortcut.app";
  const fs::path document = at / "x.tavro-launch";
  std::string registered;
  bool answer = false;
  const auto create = [&] {
    return failure_of([&] {
      create_macos_launch_document(shortcut, document, [&](const std::string& path) {
        EXPECT_FALSE(fs::exists(document));
        registered = path;
        return answer;
      });
    });
  };
  fs::create_directories(application / "Contents/MacOS");
  std::ofstream(application / "Contents/Info.plist") << "";
  EXPECT_EQ(create(), ordinary);
  std::ofstream(application / "Contents/MacOS/tavro-shortcut") << "";
  EXPECT_EQ(create(), "shortcut_api: Cannot register the installed Tavro launch-document handler");
  EXPECT_FALSE(fs::exists(document));
  answer = true;
  EXPECT_EQ(create(), "");
  EXPECT_EQ(registered, application.string());
  EXPECT_EQ(read_file(document, 32768), macos_launch_document(shortcut));
  EXPECT_EQ(create(),
            "already_exists: Launch-document destination already exists; it was preserved");
  shortcut.executable = at / "pipe";
  EXPECT_EQ(code_of([&] { register_macos_shortcut_handler(shortcut.executable); }), "unsafe_path");
  std::ofstream(at / "tavro-bootstrap") << "";
  EXPECT_EQ(failure_of([&] { register_macos_shortcut_handler(at / "tavro-bootstrap"); }),
            "shortcut_bootstrap: macOS shortcuts require the stable native bootstrap");
}

}  // namespace
}  // namespace tavro
