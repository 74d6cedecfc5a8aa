#include "platform/bounded_zstd.h"

#include <gtest/gtest.h>

#include <string>

#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

const std::string content(300000, 'x');

class Frames : public ::testing::Test {
 protected:
  std::string decode(std::string_view file, unsigned long long limit) {
    write_bytes(path, file);
    BoundedZstd decoder(path, limit);
    std::string decoded;
    while (decoder.read() != 0) {
      EXPECT_LE(decoder.output().size(), 65536U);
      decoded += decoder.output();
    }
    EXPECT_EQ(decoder.read(), 0U);
    return decoded;
  }

  TempFolder folder;
  const std::filesystem::path path = folder.path() / "frame";
};

TEST_F(Frames, AreDecodedUpToTheirBound) {
  EXPECT_EQ(decode(zstd_of(content), content.size()), content);
  EXPECT_EQ(decode(zstd_of(""), 0), "");
  EXPECT_EQ(decode(zstd_of(content, 26), content.size()), content) << "the widest window";
  EXPECT_EQ(failure_of([&] { decode(zstd_of(content), content.size() - 1); }),
            "size_limit: Decoded tar stream exceeds authenticated expansion bounds");
}

TEST_F(Frames, OfAnotherFormAreRefused) {
  const std::string frame = zstd_of(content);
  const std::string skippable("\x50\x2A\x4D\x18\x00\x00\x00\x00", 8);
  const std::string not_one = "Snapshot must contain exactly one ordinary Zstandard frame";
  const std::string trailing = "Trailing or concatenated Zstandard frames are forbidden";
  const std::string undecodable = "Snapshot decoding failed or exceeds the 64 MiB window limit";
  const std::string damaged = frame.substr(0, 4) + std::string(20, '\xff');
  const std::pair<std::string, std::string> rows[] = {
      {"", not_one},
      {frame.substr(0, 3), not_one},
      {skippable + frame, not_one},
      {frame + "x", trailing},
      {frame + frame, trailing},
      {frame + skippable, trailing},
      {frame.substr(0, frame.size() - 1), "Snapshot frame is truncated"},
      {zstd_of(content, 27), undecodable},
      {damaged, undecodable}};
  for (const auto& [file, message] : rows)
    EXPECT_EQ(failure_of([&] { decode(file, content.size()); }), "archive: " + message);
}

TEST_F(Frames, MustLieInAFileThatOpens) {
  EXPECT_EQ(failure_of([&] { BoundedZstd(path, 1); }),
            "archive: Cannot open bounded snapshot decoder");
  EXPECT_EQ(failure_of([&] { BoundedZstd(folder.path(), 1); }), "archive: Snapshot read failed");
}

TEST_F(Frames, AreProvedToTheirEndAlsoByAReaderThatStopsEarly) {
  write_bytes(path, zstd_of(content) + "x");
  BoundedZstd decoder(path, content.size());
  EXPECT_GT(decoder.read(), 0U);
  EXPECT_EQ(code_of([&] { decoder.finish(); }), "archive");
}

}  // namespace
}  // namespace tavro
