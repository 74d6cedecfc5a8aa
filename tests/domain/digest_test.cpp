#include "domain/crypto.h"
#include "support/testing.h"

namespace tavro {

TEST(Digest, StatesAreReadWithoutBeingFinished) {
  DigestState state("sha512");
  state.update("ab");
  EXPECT_EQ(state.value(), digest("ab", "sha512"));
  state.update("c");
  EXPECT_EQ(state.value().substr(0, 32), "ddaf35a193617abacc417349ae204131");
  EXPECT_EQ(digest("abc", "sha256").substr(0, 32), "ba7816bf8f01cfea414140de5dae2223");
  EXPECT_EQ(code_of([] { digest("abc", "sha384"); }), "unsupported_hash");
}

TEST(Digest, HexTakesBothCasesAndWritesOne) {
  EXPECT_EQ(hex(unhex("AbCd09", 6)), "abcd09");
  for (const char* text : {"abc", "abcdef01", "zz", "0\xb0"})
    EXPECT_EQ(code_of([&] { unhex(text, 6); }), "invalid_hex") << text;
}

TEST(Digest, OfAFileReportsEachBlockAndTheEnd) {
  const TempFolder folder;
  const auto path = folder.path() / "file";
  const auto failure = [&](const Progress& progress) {
    return failure_of([&] { digest_file_progress(path, "sha256", progress); });
  };
  for (const std::string reports : {"0/3 3/3 ", "0/65536 65536/65536 65536/65536 "}) {
    const std::string content(std::stoul(reports.substr(2)), 'x');
    std::ofstream(path) << content;
    std::ostringstream seen;
    const auto note = [&](auto done, auto all) { return bool(seen << done << '/' << all << ' '); };
    EXPECT_EQ(digest_file_progress(path, "sha256", note), digest(content, "sha256"));
    EXPECT_EQ(seen.str(), reports);
  }
  for (int left : {0, 1, 2})
    EXPECT_EQ(failure([&](auto, auto) { return left-- > 0; }),
              "cancelled: File verification cancelled");
  const auto grow = [&](auto, auto) { return bool(std::ofstream(path, std::ios::app) << 'x'); };
  EXPECT_EQ(failure(grow), "content_mismatch: File grew beyond its verification bound");
}

}  // namespace tavro
