#include "publisher/archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <thread>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/archives/snapshot.h"
#include "publisher/output.h"

namespace tavro {
namespace {

using Encoder = std::unique_ptr<ZSTD_CCtx, Deleter<ZSTD_freeCCtx>>;
using TarWriter = std::unique_ptr<struct archive, Deleter<archive_write_free>>;
using TarEntry = std::unique_ptr<archive_entry, Deleter<archive_entry_free>>;

constexpr int least_level = 1;
constexpr int most_level = 19;
constexpr unsigned most_threads = 8;

unsigned thread_count(unsigned wanted) {
  return std::clamp(wanted != 0 ? wanted : std::thread::hardware_concurrency(), 1U, most_threads);
}

/// One Zstandard frame, digested on its way into the file.
class Frame {
 public:
  Frame(const std::filesystem::path& path, const ArchiveOptions& options)
      : file_(path), digest_("sha256"), encoder_(ZSTD_createCCtx()) {
    require(encoder_ != nullptr, "archive", "Cannot create the compressor");
    set(ZSTD_c_compressionLevel, options.level);
    // With at least one worker the frame is cut into jobs of a size that the level alone fixes;
    // without workers it would be another frame, so the number may vary but is never 0.
    set(ZSTD_c_nbWorkers, static_cast<int>(thread_count(options.threads)));
    // Each file has its digest in the manifest; a checksum of the frame would prove nothing more.
    set(ZSTD_c_checksumFlag, 0);
  }

  void write(std::string_view bytes) { drive({bytes.data(), bytes.size(), 0}, ZSTD_e_continue); }

  ArchiveFigures finish() {
    drive({nullptr, 0, 0}, ZSTD_e_end);
    file_.finish();
    return {file_.written(), digest_.value(), {}};
  }

  /// For the tar writer, which no exception may pass through: kept for `rethrow`.
  static la_ssize_t callback(struct archive*, void* self, const void* bytes, std::size_t size) {
    auto& frame = *static_cast<Frame*>(self);
    try {
      frame.write({static_cast<const char*>(bytes), size});
    } catch (const std::exception&) {
      frame.failure_ = std::current_exception();
      return -1;
    }
    return static_cast<la_ssize_t>(size);
  }

  void rethrow() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  void set(ZSTD_cParameter parameter, int value) {
    require(ZSTD_isError(ZSTD_CCtx_setParameter(encoder_.get(), parameter, value)) == 0, "archive",
            "This build's compressor lacks a needed setting");
  }

  void drive(ZSTD_inBuffer input, ZSTD_EndDirective directive) {
    while (true) {
      ZSTD_outBuffer output{block_.data(), block_.size(), 0};
      const std::size_t left = ZSTD_compressStream2(encoder_.get(), &output, &input, directive);
      require(ZSTD_isError(left) == 0, "archive", "Cannot compress the archive");
      const std::string_view made(block_.data(), output.pos);
      digest_.update(made);
      file_.write(made);
      const bool done = directive == ZSTD_e_end ? left == 0 : input.pos == input.size;
      if (done) return;
    }
  }

  OutputFile file_;
  DigestState digest_;
  Encoder encoder_;
  std::array<char, kStreamBlock> block_{};
  std::exception_ptr failure_;
};

/// The tar stream inside the frame.
class Tar {
 public:
  explicit Tar(Frame& frame) : frame_(frame), writer_(archive_write_new()) {
    require(writer_ != nullptr, "archive", "Cannot create the archive writer");
    // The restricted form adds an extended header only where an old header cannot say it.
    check(archive_write_set_format_pax_restricted(writer_.get()));
    check(archive_write_add_filter_none(writer_.get()));
    // No blocks: the stream ends with its two zero records and no further padding.
    check(archive_write_set_bytes_per_block(writer_.get(), 0));
    check(archive_write_open(writer_.get(), &frame_, nullptr, &Frame::callback, nullptr));
  }

  void begin(const SourceFile& file) {
    const TarEntry entry(archive_entry_new());
    require(entry != nullptr, "archive", "Cannot create an archive entry");
    archive_entry_set_pathname(entry.get(), file.path.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), file.executable ? 0755 : 0644);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(file.length));
    archive_entry_set_mtime(entry.get(), 0, 0);
    check(archive_write_header(writer_.get(), entry.get()));
  }

  void data(std::string_view bytes) {
    const la_ssize_t count = archive_write_data(writer_.get(), bytes.data(), bytes.size());
    check(count == static_cast<la_ssize_t>(bytes.size()) ? ARCHIVE_OK : ARCHIVE_FATAL);
  }

  void finish() { check(archive_write_close(writer_.get())); }

 private:
  // A warning is refused too: it would stand for something of the entry that was left out.
  void check(int result) const {
    if (result == ARCHIVE_OK) return;
    frame_.rethrow();
    const char* reason = archive_error_string(writer_.get());
    fail("archive", std::string("Cannot write the archive: ") +
                        (reason != nullptr ? reason : "unknown reason"));
  }

  Frame& frame_;
  TarWriter writer_;
};

/// What must stand still while a file is read.
bool same_state(const struct stat& before, const struct stat& after) {
  return before.st_size == after.st_size && before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == after.st_mtim.tv_nsec;
}

class Packing {
 public:
  Packing(const SourceTree& tree, Tar& tar, const Progress& progress)
      : tree_(tree), tar_(tar), progress_(progress) {}

  /// The digest of the content that went into the archive.
  std::string pack(const SourceFile& file) {
    report(progress_, done_, tree_.expanded_length());
    const UniqueFd source = tree_.open(file);
    struct stat before {};
    struct stat after {};
    bool steady = ::fstat(source.get(), &before) == 0;
    tar_.begin(file);
    DigestState digest("sha256");
    const unsigned long long copied = copy(source.get(), file, digest);
    steady = steady && ::fstat(source.get(), &after) == 0 && same_state(before, after);
    require(steady && copied == file.length, "source_changed",
            [&] { return "File changed while it was packed: " + file.path; });
    return digest.value();
  }

 private:
  unsigned long long copy(int source, const SourceFile& file, DigestState& digest) {
    unsigned long long copied = 0;
    while (true) {
      const ssize_t count = read_some(source, block_.data(), block_.size());
      require(count >= 0, "file_read", [&] { return "Cannot read " + file.path; });
      if (count == 0) return copied;
      const std::string_view bytes(block_.data(), static_cast<std::size_t>(count));
      copied += bytes.size();
      // The entry's header has told its length already; more cannot be said any more.
      if (copied > file.length) return copied;
      digest.update(bytes);
      tar_.data(bytes);
      done_ += bytes.size();
      report(progress_, done_, tree_.expanded_length());
    }
  }

  const SourceTree& tree_;
  Tar& tar_;
  const Progress& progress_;
  unsigned long long done_ = 0;
  std::array<char, kStreamBlock> block_{};
};

}  // namespace

ArchiveFigures write_archive(const SourceTree& tree, const std::filesystem::path& archive,
                             const ArchiveOptions& options, const Progress& progress) {
  require(options.level >= least_level && options.level <= most_level, "usage",
          "Choose a compression level from 1 to 19");
  Frame frame(archive, options);
  Tar tar(frame);
  Packing packing(tree, tar, progress);
  std::vector<std::string> digests;
  digests.reserve(tree.files().size());
  for (const SourceFile& file : tree.files()) digests.push_back(packing.pack(file));
  tar.finish();
  ArchiveFigures figures = frame.finish();
  figures.file_sha256 = std::move(digests);
  return figures;
}

}  // namespace tavro
