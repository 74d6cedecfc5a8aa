#include "publisher/archive.h"

#include <zstd.h>

#include "publisher/assembly.h"
#include "support/launched.h"
#include "support/snapshot_archive.h"

namespace tavro::archive_test {

class Archive : public testing::Test {
 protected:
  ArchiveFigures pack(const std::string& name, const ArchiveOptions& options = {1, 1}) const {
    return write_archive(SourceTree(tree), temp.path() / name, options, {});
  }

  TempFolder temp;
  fs::path tree = temp.path() / "tree";
};

TEST_F(Archive, SameTreeGivesSameBytesWhateverTheClockTheModesAndTheThreads) {
  std::string noise(5 << 20, '\0');
  unsigned state = 1;
  for (char& c : noise) c = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24);
  write_tree({{"z/last.bin", noise}, {"a-first", "1"}, {"a/second", "2"}}, tree);
  const ArchiveFigures one = pack("one", {1, 1});
  fs::last_write_time(tree / "a/second", fs::file_time_type::clock::now() - std::chrono::hours(9));
  fs::permissions(tree / "a-first", fs::perms::owner_read);
  const ArchiveFigures two = pack("two", {1, 3});
  EXPECT_EQ(one.sha256, two.sha256);
  EXPECT_EQ(one.file_sha256.at(0), digest("1", "sha256"));
}

TEST_F(Archive, HoldsFilesInByteOrderWithoutOwnersAndTimes) {
  const std::string long_name(120, 'n');
  write_tree({{long_name + "/" + long_name, "content"}, {"b", "", 0755}}, tree);
  pack("archive");
  const std::string packed = read_file(temp.path() / "archive", 1 << 20);
  std::string tar(1 << 20, '\0');
  tar.resize(ZSTD_decompress(tar.data(), tar.size(), packed.data(), packed.size()));
  write_bytes(temp.path() / "tar", tar);
  Launched list("/usr/bin/tar", "", {{"TZ", "UTC"}}, {"-tvf", temp.path() / "tar"});
  EXPECT_EQ(list.rest(),
            "-rwxr-xr-x 0/0               0 1970-01-01 00:00 b\n"
            "-rw-r--r-- 0/0               7 1970-01-01 00:00 " +
                long_name + "/" + long_name + "\n");
}

TEST_F(Archive, RefusesASourceThatItCannotCarryAndNamesTheFile) {
  const std::string guard(launcher_package_guard);
  const std::pair<std::function<void()>, const char*> all[] = {
      {[&] { fs::create_symlink("file", tree / "link"); },
       "link: only ordinary files and folders can be packed"},
      {[&] { fs::create_directories(tree / "a/b"); },
       "a/b: the folder holds no files and would be lost"},
      {[&] { write_bytes(tree / "\xc3\xa9", ""); }, "\xc3\xa9: file paths must be ASCII"},
      {[&] {
         write_tree({{"a/" + guard, ""}}, tree);
       },
       "a/.tavro-launcher-package-incomplete.json: the folder is still being assembled"}};
  for (const auto& [make, message] : all) {
    fs::remove_all(tree);
    write_tree({{"file", "1"}}, tree);
    make();
    EXPECT_FAILURE(SourceTree{tree}, std::string("unsafe_source: Cannot pack ") + message);
  }
}

TEST_F(Archive, FileThatChangesIsRefusedAndLeavesNoArchive) {
  write_tree({{"a", std::string(200000, 'a')}}, tree);
  const SourceTree source(tree);
  const auto change = [&](auto done, auto) {
    if (done == 65536) fs::resize_file(tree / "a", 300000);
    return true;
  };
  EXPECT_EQ(code_of([&] {
              write_archive(source, temp.path() / "archive", {1, 1}, change);
            }),
            "source_changed");
  EXPECT_FALSE(fs::exists(temp.path() / "archive"));
}

}  // namespace tavro::archive_test
