#include "installation/data_folder.h"

#include "installation/installation_record.h"
#include "support/installation.h"

namespace tavro::data_folder_test {

TEST(DataFolder, AcceptsOnlyAFolderThatCanBeOne) {
  const TempFolder folder;
  const fs::path& base = folder.path();
  fs::create_directory_symlink(base, base / "link");
  EXPECT_EQ(data_folder(base / "a" / ".." / "missing"), base / "missing");
  const std::string root = "unsafe_path: The data folder cannot be a filesystem root";
  const std::vector<std::pair<fs::path, std::string>> rows = {
      {std::string(4097, 'a'), "unsafe_path: Choose a data folder"},
      {std::string("a\0b", 3), "unsafe_path: Choose a data folder"},
      {"/", root},
      {base / "", root},
      {base / "link", "unsafe_path: The data folder cannot be a symbolic link"},
  };
  for (const auto& [path, failure] : rows)
    EXPECT_EQ(failure_of([&path = path] { data_folder(path); }), failure) << path;
  if (geteuid() != 0) {
    fs::create_directories(base / "closed");
    fs::permissions(base / "closed", fs::perms::none);
    EXPECT_THAT(failure_of([&] { data_folder(base / "closed"); }),
                testing::StartsWith("permissions: No permission to enter the data folder"));
    fs::permissions(base / "closed", fs::perms::owner_all);
  }
  const fs::path before = fs::current_path();
  fs::create_directories(base / "gone");
  fs::current_path(base / "gone");
  fs::remove(base / "gone");
  EXPECT_EQ(code_of([] { data_folder("relative"); }), "unsafe_path");
  fs::current_path(before);
  EXPECT_TRUE(within("/a/b/..c", "/a/b") && !within("/a/bc", "/a/b"));
}

TEST(InstallStatus, RefusesDamagedRecordsButForgivesALauncherStore) {
  Installation at;
  at.install();
  put_file(at.paths.launcher / "installation.json", "{");
  EXPECT_EQ(at.status().bootstrap_build + at.status().launcher_build, "1.0.0");
  const auto& record = at.paths.installation;
  const auto& status = at.paths.setup_status;
  const std::vector<std::tuple<fs::path, json, std::string>> rows = {
      {record, {{"schema_version", 2}}, "Unsupported installation record " + record.string()},
      {record, {{"kind", nullptr}}, "Installation record is malformed: " + record.string()},
      {status, {{"kind", "tavro-installation"}}, "Unsupported setup status record"},
      {status, {{"message", 7}}, "Setup status record is malformed: " + status.string()},
  };
  for (const auto& [path, change, message] : rows) {
    const auto good = read_file(path, 65536);
    auto document = json::parse(good);
    document.merge_patch(change);
    put_file(path, document.dump());
    EXPECT_EQ(failure_of([&] { at.status(); }), "unsupported_schema: " + message);
    put_file(path, good);
  }
  // Of no version at all: told in words of our own, with the file.
  for (const auto& path : {status, at.paths.bootstrap_manifest, record})
    for (const auto* text : {"", "{", "{}\x93", "[]"}) {
      put_file(path, text);
      const auto failure = failure_of([&] { at.status(); });
      EXPECT_THAT(failure, testing::HasSubstr(path.string()));
      EXPECT_THAT(failure, testing::Not(testing::HasSubstr("exception")));
    }
}

TEST(InstallStatus, RecordsAnOperationWhateverItsMessage) {
  Installation at;
  write_status(at.paths, "install", "failed", "lost");
  EXPECT_FALSE(stands(at.paths.root));
  at.install();
  // The cut falls into the two bytes of a letter, and a path may hold bytes that are no letter.
  write_status(at.paths, "repair", "failed", "\xff" + std::string(2046, 'a') + "\xc3\xa9");
  EXPECT_EQ(at.status().to_json().at("last_operation").at("message"), std::string(2046, 'a'));
}

}  // namespace tavro::data_folder_test
