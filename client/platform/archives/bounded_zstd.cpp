#include "platform/archives/bounded_zstd.h"

#include <archive.h>
#include <fcntl.h>
#include <zstd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/private_storage.h"

namespace tavro {
namespace {

constexpr int window_log_max = 26;  // 64 MiB
constexpr std::string_view frame_magic{"\x28\xB5\x2F\xFD", 4};

ArchiveSource file_source(const std::filesystem::path& archive) {
  const auto file = std::make_shared<UniqueFd>(
      posix_files::open(archive, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  require(bool(*file), "archive", "Cannot open bounded snapshot decoder");
  return [file](char* buffer, std::size_t size) {
    const ssize_t count = read_some(file->get(), buffer, size);
    require(count >= 0, "archive", "Snapshot read failed");
    return static_cast<std::size_t>(count);
  };
}

}  // namespace

struct BoundedZstd::Impl {
  ArchiveSource source;
  std::unique_ptr<ZSTD_DCtx, Deleter<ZSTD_freeDCtx>> decoder;
  std::array<char, kStreamBlock> input_block;
  std::array<char, kStreamBlock> output_block;
  ZSTD_inBuffer input{nullptr, 0, 0};
  std::size_t output_size = 0;
  unsigned long long limit = 0;
  unsigned long long decoded = 0;
  bool done = false;
  std::string first_error;

  bool input_used_up() const { return input.pos == input.size; }

  /// Replaces the input block; it stays empty only at the end of the file.
  void fill() {
    std::size_t size = 0;
    while (size < input_block.size()) {
      const std::size_t count = source(input_block.data() + size, input_block.size() - size);
      if (count == 0) break;
      size += count;
    }
    input = {input_block.data(), size, 0};
  }

  void prove_end() {
    if (input_used_up()) fill();
    require(input_used_up(), "archive", "Trailing or concatenated Zstandard frames are forbidden");
    done = true;
  }

  void decode() {
    ZSTD_outBuffer output{output_block.data(), output_block.size(), 0};
    while (!done && output.pos == 0) {
      if (input_used_up()) fill();
      require(!input_used_up(), "archive", "Snapshot frame is truncated");
      const std::size_t rest = ZSTD_decompressStream(decoder.get(), &output, &input);
      require(!ZSTD_isError(rest), "archive",
              "Snapshot decoding failed or exceeds the 64 MiB window limit");
      require(output.pos <= limit - decoded, "size_limit",
              "Decoded tar stream exceeds authenticated expansion bounds");
      if (rest == 0) prove_end();
    }
    decoded += output.pos;
    output_size = output.pos;
  }
};

BoundedZstd::BoundedZstd(const std::filesystem::path& archive, unsigned long long limit)
    : BoundedZstd(file_source(archive), limit) {}

BoundedZstd::BoundedZstd(ArchiveSource source, unsigned long long limit) : impl_(new Impl) {
  impl_->limit = limit;
  impl_->source = std::move(source);
  impl_->decoder.reset(ZSTD_createDCtx());
  require(impl_->decoder != nullptr, "archive", "Cannot open bounded snapshot decoder");
  const auto set =
      ZSTD_DCtx_setParameter(impl_->decoder.get(), ZSTD_d_windowLogMax, window_log_max);
  require(!ZSTD_isError(set), "archive", "Cannot set the 64 MiB decoder window limit");
  impl_->fill();
  // The library would take a skippable frame or an old format here.
  require(std::string_view(impl_->input_block.data(), impl_->input.size).starts_with(frame_magic),
          "archive", "Snapshot must contain exactly one ordinary Zstandard frame");
}

BoundedZstd::~BoundedZstd() = default;

std::size_t BoundedZstd::read() {
  impl_->output_size = 0;
  if (!impl_->done) impl_->decode();
  return impl_->output_size;
}

std::string_view BoundedZstd::output() const noexcept {
  return {impl_->output_block.data(), impl_->output_size};
}

ssize_t BoundedZstd::callback(struct archive* reader, void* self, const void** buffer) noexcept {
  auto& decoder = *static_cast<BoundedZstd*>(self);
  try {
    const std::size_t size = decoder.read();
    *buffer = decoder.impl_->output_block.data();
    return static_cast<ssize_t>(size);
  } catch (const std::exception& error) {
    if (decoder.impl_->first_error.empty()) decoder.impl_->first_error = error.what();
    archive_set_error(reader, EINVAL, "%s", error.what());
    return -1;
  }
}

void BoundedZstd::finish() {
  require(impl_->first_error.empty(), "archive", [this] { return impl_->first_error; });
  while (read() != 0) {
  }
}

}  // namespace tavro
