#include <gtest/gtest.h>

#include <fstream>

#include "domain/crypto.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

constexpr std::string_view kAbc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(Digest, StatesAreReadWithoutBeingFinished) {
  EXPECT_EQ(digest("abc", "sha512").substr(0, 32), "ddaf35a193617abacc417349ae204131");
  DigestState state("sha256");
  EXPECT_EQ(state.value(), digest("", "sha256"));
  state.update("ab");
  EXPECT_EQ(state.value(), digest("ab", "sha256"));
  DigestState moved = std::move(state);
  moved.update("c");
  for (int again = 0; again < 2; ++again) EXPECT_EQ(moved.value(), kAbc);
  for (const char* name : {"sha384", "SHA256"})
    EXPECT_EQ(code_of([&] { digest("abc", name); }), "unsupported_hash");
}

TEST(Digest, HexTakesBothCasesAndWritesOne) {
  EXPECT_EQ(hex(unhex("AbCd09", 6)), "abcd09");
  for (const char* text : {"abc", "abcdef01", "zz", "0\xb0"})
    EXPECT_EQ(code_of([&] { unhex(text, 6); }), "invalid_hex") << text;
  for (const char* text : {"09aF", "09a", "09af0"}) EXPECT_FALSE(is_lower_hex(text, 4)) << text;
  EXPECT_TRUE(is_lower_hex(random_id(), 32));
  EXPECT_NE(random_id(), random_id());
}

class FileDigest : public testing::Test {
 protected:
  void write(std::size_t size) { std::ofstream(path) << std::string(size, 'x'); }

  std::string failure(const Progress& progress) {
    return failure_of([&] { digest_file_progress(path, "sha256", progress); });
  }

  TempFolder folder;
  const std::filesystem::path path = folder.path() / "file";
};

TEST_F(FileDigest, ReportsEachBlockAndTheEnd) {
  const std::pair<std::size_t, std::vector<unsigned long long>> rows[] = {
      {0, {0, 0}}, {65535, {0, 65535}}, {65536, {0, 65536, 65536}}, {65537, {0, 65536, 65537}}};
  for (const auto& [size, expected] : rows) {
    write(size);
    std::vector<unsigned long long> reports;
    const auto collect = [&, whole = size](unsigned long long done, unsigned long long total) {
      reports.push_back(done);
      return total == whole;
    };
    EXPECT_EQ(digest_file_progress(path, "sha256", collect),
              digest(std::string(size, 'x'), "sha256"));
    EXPECT_EQ(reports, expected);
  }
}

TEST_F(FileDigest, RefusesWhatGrowsIsCancelledOrCannotBeRead) {
  EXPECT_EQ(failure({}), "file_read: Could not open file for verification: " + path.native());
  EXPECT_EQ(code_of([&] { digest_file(folder.path(), "sha256"); }), "file_read");
  write(65536);
  for (int left : {0, 1, 2})
    EXPECT_EQ(failure([&](auto, auto) { return left-- > 0; }),
              "cancelled: File verification cancelled");
  const auto grow = [&](auto, auto) { return !(std::ofstream(path, std::ios::app) << "x").fail(); };
  EXPECT_EQ(failure(grow), "content_mismatch: File grew beyond its verification bound");
}

}  // namespace
}  // namespace tavro
