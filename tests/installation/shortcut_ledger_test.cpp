#include "installation/shortcut_ledger.h"

#include <sys/mount.h>

#include <future>
#include <thread>

#include "documents/documents.h"
#include "installation/menu_icon.h"
#include "platform/files/file_locks.h"
#include "platform/shortcuts/desktop_entry.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"

namespace tavro::shortcut_ledger_test {

using Paths = std::vector<fs::path>;

struct ShortcutLedger : testing::Test {
  ShortcutLedger() {
    // Others may change it, so that no link in it is the system's, even where root tests.
    fs::permissions(at, fs::perms(0770));
    put_file(shortcut.executable, "a bootstrap");
    fs::permissions(root, fs::perms::owner_all);
    fs::permissions(root / "native", fs::perms::owner_all);
    fs::create_directory(at / "menu");
  }

  bool create(const fs::path& path) const {
    return create_owned_native_shortcut(shortcut, path).at("created").get<bool>();
  }
  std::string refusal(const fs::path& path) const {
    return failure_of([&] { create(path); });
  }
  fs::path entry(int number) const { return at / "menu" / (std::to_string(number) + ".desktop"); }
  json document(int count) const {
    json entries = json::array();
    for (int number = 0; number < count; ++number)
      entries.push_back(
          {{"path", entry(number).string()}, {"game", ""}, {"name", "Old"}, {"sha256", ""}});
    return {{"schema_version", 1}, {"kind", "tavro-shortcuts"}, {"entries", entries}};
  }
  void write(const std::string& text) const {
    put_file(ledger, text);
    fs::permissions(ledger, fs::perms(0600));
  }

  TempFolder folder;
  const fs::path at = folder.path(), root = at / "data", ledger = root / "native/shortcuts.json";
  const DesktopShortcut shortcut{root / "native/bootstrap/bin/tavro-bootstrap", root, "", "Tavro"};
};

TEST_F(ShortcutLedger, HoldsNoMoreThan128) {
  write(document(128).dump());
  EXPECT_EQ(refusal(at / "menu/new.desktop"), "size_limit: Too many recorded shortcuts");
  EXPECT_TRUE(create(entry(127)));
  json full = document(1);
  full["entries"][0]["name"] = std::string(262144 - full.dump().size(), 'n');
  write(full.dump());
  EXPECT_EQ(refusal(entry(1)), "size_limit: Too many recorded shortcuts");
  EXPECT_FALSE(fs::exists(entry(1)));
  write(document(129).dump());
  EXPECT_EQ(refusal(entry(0)), "shortcut_ledger: Unsupported shortcut list " + ledger.string());
}

TEST_F(ShortcutLedger, LeavesAloneWhatItCannotRead) {
  create(entry(0));
  const std::string good = read_file(ledger, 262144);
  const auto with = [&](const char* damage) { return damaged(json::parse(good), damage).dump(); };
  const std::string unsupported = "shortcut_ledger: Unsupported shortcut list " + ledger.string();
  const std::string malformed = "shortcut_ledger: Shortcut list is malformed: " + ledger.string();
  const std::vector<std::pair<std::string, std::string>> rows = {
      {R"({"schema_version":2})", unsupported},
      {with(R"(/kind "tavro-launch-document")"), unsupported},
      {with("/entries \"none\""), unsupported},
      {with("/entries/0 1"), malformed},
      {with("/entries/0/path 7"), malformed},
      {with(R"(/entries/0/path "menu/x.desktop")"), "shortcut_path: "},
      {good.substr(0, good.size() / 2), malformed},
      {good + std::string(262145 - good.size(), ' '), "size_limit: "},
  };
  const std::vector<std::function<void()>> operations = {
      [&] { create(entry(1)); }, [&] { owned_native_shortcuts(root); },
      [&] { remove_owned_native_shortcuts(root); },
      [&] { restore_owned_native_shortcuts(root, shortcut.executable); }};
  for (const auto& [text, failure] : rows) {
    write(text);
    const auto before = tree_content(at);
    for (const auto& work : operations) EXPECT_THAT(failure_of(work), testing::StartsWith(failure));
    EXPECT_EQ(tree_content(at), before) << failure;
  }
  write(good);
  put_file(entry(0), std::string(65537, 'x'));
  EXPECT_EQ(code_of(operations[2]), "size_limit");
  EXPECT_EQ(owned_native_shortcuts(root).size(), 1U);
}

TEST_F(ShortcutLedger, RefusesTheDataFolderUnderEverySpelling) {
  const std::string inside = "shortcut_path: Shortcuts must be outside the data folder";
  for (const auto& path : {root, root / "none/x.desktop"}) EXPECT_EQ(refusal(path), inside);
  fs::create_directory_symlink(root, at / "link");
  EXPECT_THAT(refusal(at / "link/x.desktop"), testing::StartsWith("unsafe_path: "));
  put_file(root / ".tavro-setup-incomplete", "");
  EXPECT_THAT(refusal(entry(0)), testing::StartsWith("native_install_incomplete: "));
  fs::remove(root / ".tavro-setup-incomplete");
  fs::create_directory(at / "bound");
  if (!bind_mount(root, at / "bound")) GTEST_SKIP() << "may not mount";
  EXPECT_EQ(refusal(at / "bound/x.desktop"), inside);
  EXPECT_EQ(native_menu_entry(at / "bound", "", ""), native_menu_entry(root, "", ""));
  umount2((at / "bound").c_str(), MNT_DETACH);
}

TEST_F(ShortcutLedger, IsChangedByOneAtATime) {
  std::vector<std::future<void>> runs;
  for (const int run : {0, 100, 200})
    runs.push_back(std::async(std::launch::async, [this, run] {
      for (int number = 0; number < 15; ++number) create(entry(run + number));
    }));
  for (auto& run : runs) run.get();
  EXPECT_EQ(owned_native_shortcuts(root).size(), 45U);
  EXPECT_EQ(remove_owned_native_shortcuts(root).removed.size(), 45U);
}

TEST_F(ShortcutLedger, TakesNothingMoreOnceAnUninstallHasBegun) {
  auto lock = std::make_unique<FileLock>(root / "native/shortcuts.lock", true, LockMode::exclusive);
  auto run = std::async(std::launch::async, [this] { return refusal(entry(0)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  put_file(root / ".tavro-setup-incomplete", "");
  lock.reset();
  EXPECT_THAT(run.get(), testing::StartsWith("native_install_incomplete: "));
}

TEST_F(ShortcutLedger, LeavesNoShortcutThatItDoesNotKnowWhereverWritingFails) {
  const auto reset = [&] { fs::remove(ledger), fs::remove(entry(0)); };
  const auto check = [&](const Stop& stop) {
    const bool made = fs::exists(entry(0)), known = owned_native_shortcuts(root).size() == 1;
    EXPECT_TRUE(made ? known : !stop.code.empty()) << stop.nth << stop.call;
  };
  const auto work = [&] { create(entry(0)); };
  EXPECT_GT(strike_each_call(Fault::fail, EIO, reset, work, check), 12);
}

TEST_F(ShortcutLedger, OwnsEveryFileWhereverItIsKilled) {
  const auto reset = [&] {
    fs::remove(ledger), fs::remove_all(at / "menu"), fs::create_directory(at / "menu");
  };
  const auto check = [&](const Stop& stop) {
    EXPECT_TRUE(!fs::exists(entry(0)) || owned_native_shortcuts(root).size() == 1) << stop.call;
    if (stop.nth % 2 == 0) create(entry(0));
    remove_owned_native_shortcuts(root);
    EXPECT_TRUE(fs::is_empty(at / "menu")) << stop.nth << stop.call;
  };
  const auto work = [&] { create(entry(0)); };
  EXPECT_GT(strike_each_call(Fault::kill, EIO, reset, work, check), 12);
}

TEST(MenuIcon, IsTheLargestImageThatDesktopsShow) {
  const auto image = [](int width, std::uint32_t size, std::uint32_t offset) {
    std::string text{static_cast<char>(width)};
    text.append(7, '\0');
    for (const auto value : {size, offset})
      for (int byte = 0; byte < 4; ++byte) text += static_cast<char>(value >> 8 * byte);
    return text;
  };
  const auto icon = [](const std::string& images, int count) {
    return std::string("\0\0\1\0", 4) + static_cast<char>(count) + '\0' + images;
  };
  const std::string png = "\x89PNG\r\n\x1a\n";
  EXPECT_EQ(largest_png(icon(image(16, 9, 54) + image(0, 10, 63) + image(255, 8, 0), 3) + png +
                        "a" + png + "bc"),
            png + "bc");
  for (const std::string& hostile :
       {std::string(), icon("", 255), icon(image(0, 0xFFFFFFFF, 0xFFFFFFFF), 1),
        icon(image(0, 30, 6), 1), icon(image(0, 4, 22), 200) + png})
    EXPECT_EQ(largest_png(hostile), "");
}

}  // namespace tavro::shortcut_ledger_test
