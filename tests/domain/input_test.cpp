#include "domain/input.h"

#include <sys/stat.h>

#include "documents/documents.h"

namespace tavro {

TEST(Input, ReadsWholeFilesAndTailsUpToTheBound) {
  const TempFolder folder;
  const auto path = folder.path() / "file";
  const std::string content = std::string(70000, 'x') + std::string("\0end", 4);
  std::ofstream(path) << content;
  EXPECT_EQ(read_file(path, 70004), content);
  EXPECT_EQ(code_of([&] { read_file(path, 70003); }), "size_limit");
  for (const std::size_t left_out : {70004, 70001, 1, 0}) {
    unsigned long long size = 0;
    EXPECT_EQ(read_file_tail(path, 70004 - left_out, &size), content.substr(left_out));
    EXPECT_EQ(size, 70004u);
  }
}

TEST(Input, RefusesWithoutWaitingWhatIsNoOrdinaryFileOrGrows) {
  const TempFolder folder;
  const std::string pipe = folder.path() / "pipe", link = folder.path() / "link";
  const auto refusal = [](const auto& path) { return failure_of([&] { read_file(path, 4096); }); };
  EXPECT_EQ(refusal(pipe), "file_read: Cannot open file: " + pipe);
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(refusal(pipe), "unsafe_path: Expected an ordinary file: " + pipe);
  std::filesystem::create_symlink("pipe", link);
  EXPECT_EQ(refusal(link), "unsafe_path: Cannot open file: " + link);
  // The system's own files hold more than their size tells, as a file does that grows meanwhile.
  EXPECT_EQ(refusal("/proc/self/stat"), "file_read: File changed while reading");
}

TEST(Input, BoundsTheArgumentsInNumberAndTogether) {
  std::string half(65536, 'x'), byte = "x", nothing;
  char* argv[] = {byte.data(), half.data(), nothing.data(), half.data(), byte.data()};
  EXPECT_EQ(process_arguments(4, argv), (std::vector{half, nothing, half}));
  EXPECT_EQ(code_of([&] { process_arguments(5, argv); }), "argument_limit");
  EXPECT_EQ(code_of([&] { process_arguments(0, argv); }), "argument_encoding");
}

TEST(Input, BoundsEnvironmentValuesAndTheirKeys) {
  ::setenv("TAVRO_TEST", "12345", 1);
  EXPECT_EQ(process_environment("TAVRO_TEST", 5), "12345");
  expect_answers("environment_limit|4 TAVRO_TEST|0 A|131073 A\nenvironment_key|9 |9 A=B\n|131072 A",
                 [](const std::string& row) {
                   process_environment(row.substr(row.find(' ') + 1), std::stoul(row));
                 });
}

}  // namespace tavro
