#include "domain/input.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

TEST(Input, ReadsWholeFilesAndTailsUpToTheBound) {
  const TempFolder folder;
  const fs::path path = folder.path() / "file";
  const std::string content = std::string(70000, 'x') + std::string("\0end", 4);
  std::ofstream(path, std::ios::binary) << content;
  EXPECT_EQ(read_file(path, content.size()), content);
  EXPECT_EQ(code_of([&] { read_file(path, content.size() - 1); }), "size_limit");
  for (const unsigned bound : {0u, 3u, 70003u, 70004u, 99999u}) {
    unsigned long long size = 0;
    const std::size_t expected = std::min<std::size_t>(bound, content.size());
    EXPECT_EQ(read_file_tail(path, bound, &size), content.substr(content.size() - expected));
    EXPECT_EQ(size, content.size());
  }
}

TEST(Input, RefusesWhatIsNoOrdinaryFileWithoutWaiting) {
  const TempFolder folder;
  fs::create_directory(folder.path() / "directory");
  ASSERT_EQ(::mkfifo((folder.path() / "pipe").c_str(), 0600), 0);
  fs::create_symlink("directory", folder.path() / "link");
  const std::pair<const char*, std::string> rows[] = {
      {"directory", "unsafe_path: Expected an ordinary file: "},
      {"pipe", "unsafe_path: Expected an ordinary file: "},
      {"link", "unsafe_path: Cannot open file: "},
      {"missing", "file_read: Cannot open file: "}};
  for (const auto& [name, failure] : rows) {
    const fs::path path = folder.path() / name;
    EXPECT_EQ(failure_of([&] { read_file(path, 100); }), failure + path.native());
  }
}

// The system's own files hold more than their size tells, as a file does that grows meanwhile.
TEST(Input, NoticesAFileThatGrows) {
  EXPECT_EQ(failure_of([] { read_file("/proc/self/stat", 4096); }),
            "file_read: File changed while reading");
}

TEST(Arguments, AreBoundedInNumberAndTogether) {
  const auto refusal = [](std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    return failure_of([&] {
      const auto arguments = process_arguments(static_cast<int>(argv.size()), argv.data());
      EXPECT_TRUE(std::equal(arguments.begin(), arguments.end(), words.begin() + 1, words.end()));
    });
  };
  const std::string half(65536, 'x');
  EXPECT_EQ(refusal({"name", "", half, half}) + refusal({"name", half + half}), "");
  EXPECT_EQ(refusal(std::vector<std::string>(257, "x")), "");
  EXPECT_EQ(refusal({}), "argument_encoding: Native command arguments are missing");
  EXPECT_EQ(refusal(std::vector<std::string>(258, "x")),
            "argument_limit: Too many native command arguments");
  for (const std::string& last : {half + "x", half + half})
    EXPECT_EQ(refusal({"name", half, last}),
              "argument_limit: Native process text exceeds its byte bound");
}

TEST(Environment, ValuesAndKeysAreBounded) {
  ::setenv("TAVRO_TEST_VALUE", "12345", 1);
  EXPECT_EQ(process_environment("TAVRO_TEST_VALUE", 5), "12345");
  EXPECT_EQ(process_environment(std::string(128, 'K'), 131072), "");
  const auto refusal = [](const std::string& key, std::size_t bound) {
    return code_of([&] { process_environment(key, bound); });
  };
  EXPECT_EQ(refusal("TAVRO_TEST_VALUE", 4), "environment_limit");
  for (const std::size_t bound : {0, 131073}) EXPECT_EQ(refusal("A", bound), "environment_limit");
  for (const std::string& key : {std::string(), std::string(129, 'K'), std::string("A=B")})
    EXPECT_EQ(refusal(key, 10), "environment_key");
}

}  // namespace
}  // namespace tavro
