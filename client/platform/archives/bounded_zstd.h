#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

struct archive;

namespace tavro {

/// Puts the next bytes of an archive into `buffer`, at most `size`, and answers how many; 0 at its
/// end. Throws what is wrong with it.
using ArchiveSource = std::function<std::size_t(char* buffer, std::size_t size)>;

/// Decodes a file that holds exactly one ordinary Zstandard frame, in blocks of at most 65536
/// bytes, with a decoder window of at most 64 MiB and a bound on the decoded bytes. The file's
/// content is distrusted; every failure of its form is `archive`, going beyond the bound is
/// `size_limit`.
class BoundedZstd {
 public:
  /// `limit` bounds the decoded bytes. Reads the first block, and proves the frame's magic number.
  BoundedZstd(const std::filesystem::path& archive, unsigned long long limit);
  /// The same for bytes from elsewhere. What the source throws ends the decoding as a failure of
  /// the file does: with its text.
  BoundedZstd(ArchiveSource source, unsigned long long limit);
  ~BoundedZstd();
  BoundedZstd(const BoundedZstd&) = delete;
  BoundedZstd& operator=(const BoundedZstd&) = delete;

  /// The number of decoded bytes that now stand in `output`, 0 once the frame has ended and the
  /// file with it.
  std::size_t read();
  /// The bytes of the last `read`; valid until the next one.
  std::string_view output() const noexcept;

  /// The read callback of a tar reader, with `self` a `BoundedZstd`. No exception passes through
  /// the library: the text of a failure is kept for `finish`, and -1 is returned.
  static ssize_t callback(struct archive* reader, void* self, const void** buffer) noexcept;

  /// Proves the end of frame and file, also when the tar reader stopped early; raises a kept text.
  void finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavro
