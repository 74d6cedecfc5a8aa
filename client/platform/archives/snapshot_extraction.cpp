#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <array>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "documents/manifest.h"
#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/archives/bounded_zstd.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"
#include "platform/storage/allocated_file.h"
#include "platform/storage/reserved_tree.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

// What a tar stream may take beside the content: headers of each file, and its end.
constexpr unsigned long long header_allowance = 8192;
constexpr unsigned long long end_allowance = 10240;

using TarReader = std::unique_ptr<struct archive, Deleter<archive_read_free>>;

void require_proved_archive(const SnapshotManifest& manifest, const fs::path& archive) {
  std::error_code ignored;
  require(fs::is_regular_file(archive, ignored) && !fs::is_symlink(archive, ignored) &&
              fs::file_size(archive, ignored) == manifest.archive_length &&
              digest_file(archive, "sha256") == manifest.archive_sha256,
          "content_mismatch", "Snapshot differs from its verified application manifest");
}

void make_staging(const fs::path& staging) {
  std::error_code ignored;
  const auto type = fs::status(staging, ignored).type();
  require(type == fs::file_type::not_found || type == fs::file_type::none, "staging_exists",
          "A fresh staging directory is required");
  private_directory(staging);
}

unsigned long long decoded_bound(const SnapshotManifest& manifest) {
  return manifest.expanded_length + header_allowance * manifest.files.size() + end_allowance;
}

TarReader open_tar(BoundedZstd& decoder) {
  TarReader reader(archive_read_new());
  require(reader != nullptr, "archive", "Cannot allocate archive decoder");
  require(archive_read_support_filter_none(reader.get()) == ARCHIVE_OK &&
              archive_read_support_format_tar(reader.get()) == ARCHIVE_OK &&
              archive_read_open(reader.get(), &decoder, nullptr, BoundedZstd::callback, nullptr) ==
                  ARCHIVE_OK,
          "archive", "Cannot open snapshot archive");
  return reader;
}

/// In either form of the text: a target that this locale cannot spell is a target still.
bool has_link_target(struct archive_entry* entry) {
  return archive_entry_hardlink(entry) || archive_entry_hardlink_utf8(entry) ||
         archive_entry_symlink(entry) || archive_entry_symlink_utf8(entry);
}

bool is_ordinary_file(struct archive_entry* entry) {
  return archive_entry_filetype(entry) == AE_IFREG && !has_link_target(entry) &&
         archive_entry_sparse_count(entry) == 0 && archive_entry_xattr_count(entry) == 0;
}

bool matches_declaration(struct archive_entry* entry, const PackageFile& declared) {
  const auto size = archive_entry_size(entry);
  return size >= 0 && static_cast<unsigned long long>(size) == declared.length &&
         archive_entry_perm(entry) == (declared.executable ? 0755U : 0644U);
}

/// One archive on its way into one staging directory. What is not in `part` is passed over.
class Extraction {
 public:
  template <typename Archive>
  Extraction(const SnapshotManifest& manifest, const SnapshotManifest& part, Archive&& archive,
             const fs::path& staging, const Progress& progress, const ReservedTree* reserved)
      : manifest_(manifest),
        part_(part),
        staging_(staging),
        progress_(progress),
        reserved_(reserved),
        decoder_(std::forward<Archive>(archive), decoded_bound(manifest)),
        reader_(open_tar(decoder_)) {}

  void extract_files() {
    struct archive_entry* entry = nullptr;
    int answer = ARCHIVE_OK;
    while ((answer = archive_read_next_header(reader_.get(), &entry)) == ARCHIVE_OK) {
      report(progress_, done_, manifest_.expanded_length);
      extract(entry);
    }
    require(answer == ARCHIVE_EOF && seen_.size() == manifest_.files.size(), "archive",
            "Snapshot is incomplete or malformed");
    decoder_.finish();
  }

 private:
  void extract(struct archive_entry* entry) {
    const char* name = archive_entry_pathname_utf8(entry);
    require(name != nullptr, "archive_path", "Archive path is not valid UTF-8");
    const std::string relative = name;
    const fs::path path = safe_join(staging_, relative, true);
    require(is_ordinary_file(entry), "archive_type",
            "Only ordinary files are accepted in snapshots");
    const PackageFile& declared = admit(relative);
    require(matches_declaration(entry, declared), "archive_inventory",
            "Archive file length or mode differs from manifest");
    if (!part_.files.contains(relative)) return pass_over(declared.length);
    make_directories(relative);

    AllocatedFile file = open_target(relative, path, declared.length);
    copy_content(file, declared.length);
    file.set_executable(declared.executable);
    file.finish_unsynchronized(true);
    require(digest_file(path, "sha256") == declared.sha256, "content_mismatch",
            "Extracted file hash differs from manifest");
  }

  void pass_over(unsigned long long length) {
    require(archive_read_data_skip(reader_.get()) == ARCHIVE_OK, "archive",
            "Snapshot decompression failed");
    done_ += length;
  }

  AllocatedFile open_target(const std::string& relative, const fs::path& path,
                            unsigned long long length) const {
    if (reserved_ != nullptr) return AllocatedFile(reserved_->file(relative, length));
    return AllocatedFile(path, length, {});
  }

  const PackageFile& admit(const std::string& relative) {
    const auto declared = manifest_.files.find(relative);
    require(seen_.size() < kMaxSnapshotFiles && declared != manifest_.files.end() &&
                seen_.insert(declared->first).second,
            "archive_inventory", "Archive contains an unexpected or duplicate file");
    return declared->second;
  }

  // Each directory is proved private when it is new, and stays so in a private tree. Its name is
  // made here without a sync, since all directories are synced at the end; what mkdir does not
  // manage, `private_directory` does or reports.
  void make_directories(const std::string& relative) {
    for (auto end = relative.find('/'); end != relative.npos; end = relative.find('/', end + 1)) {
      const fs::path directory = staging_ / relative.substr(0, end);
      if (!made_.insert(directory.native()).second) continue;
      system_calls().mkdir(directory.c_str(), S_IRWXU);
      private_directory(directory);
    }
  }

  void copy_content(AllocatedFile& file, unsigned long long length) {
    unsigned long long written = 0;
    for (;;) {
      const auto count = archive_read_data(reader_.get(), block_.data(), block_.size());
      require(count >= 0, "archive", "Snapshot decompression failed");
      if (count == 0) break;
      const std::string_view bytes(block_.data(), static_cast<std::size_t>(count));
      require(bytes.size() <= length - written, "size_limit",
              "Archive expands beyond authenticated file length");
      file.write(bytes);
      written += bytes.size();
      done_ += bytes.size();
      report(progress_, done_, manifest_.expanded_length);
    }
    require(written == length, "archive", "Snapshot file is truncated");
  }

  const SnapshotManifest& manifest_;
  const SnapshotManifest& part_;
  const fs::path& staging_;
  const Progress& progress_;
  const ReservedTree* reserved_;
  BoundedZstd decoder_;
  TarReader reader_;
  unsigned long long done_ = 0;
  std::set<std::string_view> seen_;
  std::set<std::string> made_;
  std::array<char, kStreamBlock> block_;
};

// The files are synced together, after the last one was written and before the tree is read again.
// Nobody relies on content of the staging directory before this function returns, so no crash can
// tell the difference, while a sync after each file would commit the volume's journal once a file.
void sync_files(const SnapshotManifest& manifest, const fs::path& staging,
                const Progress& progress) {
  for (const auto& [relative, file] : manifest.files) {
    report(progress, manifest.expanded_length, manifest.expanded_length);
    sync_file(staging / relative);
  }
}

// Children before parents, and the root last: once it is durable, so is all below it.
void sync_directories(const fs::path& staging) {
  std::vector<fs::path> directories{staging};
  for (const auto& entry : fs::recursive_directory_iterator(staging))
    if (entry.is_directory() && !entry.is_symlink()) directories.push_back(entry.path());
  for (auto directory = directories.rbegin(); directory != directories.rend(); ++directory)
    sync_directory(*directory);
}

void settle_tree(const SnapshotManifest& manifest, const fs::path& staging,
                 const Progress& progress) {
  sync_files(manifest, staging, progress);
  verify_snapshot_tree(manifest, staging, progress);
  sync_directories(staging);
}

/// Proves length and digest of what passes through it.
class ProvedSource {
 public:
  ProvedSource(const SnapshotManifest& manifest, ArchiveSource source)
      : manifest_(manifest), source_(std::move(source)) {}

  std::size_t read(char* buffer, std::size_t size) {
    const std::size_t count = source_(buffer, size);
    require(count <= manifest_.archive_length - length_, "content_mismatch", different);
    length_ += count;
    digest_.update({buffer, count});
    return count;
  }

  void require_whole() const {
    require(length_ == manifest_.archive_length && digest_.value() == manifest_.archive_sha256,
            "content_mismatch", different);
  }

 private:
  static constexpr char different[] = "Snapshot differs from its verified application manifest";
  const SnapshotManifest& manifest_;
  ArchiveSource source_;
  DigestState digest_{"sha256"};
  unsigned long long length_ = 0;
};

}  // namespace

void extract_snapshot_part(const SnapshotManifest& manifest, const SnapshotManifest& part,
                           ArchiveSource source, const fs::path& staging, const Progress& progress,
                           const ReservedTree& reserved) {
  reserved.validate(part, staging);
  ProvedSource proved(manifest, std::move(source));
  {
    const ArchiveSource bytes = [&](char* buffer, std::size_t size) {
      return proved.read(buffer, size);
    };
    Extraction extraction(manifest, part, bytes, staging, progress, &reserved);
    extraction.extract_files();
  }
  proved.require_whole();
  settle_tree(part, staging, progress);
}

void extract_snapshot(const SnapshotManifest& manifest, const fs::path& archive,
                      const fs::path& staging, const Progress& progress,
                      const ReservedTree* reserved) {
  require_proved_archive(manifest, archive);
  if (reserved != nullptr)
    reserved->validate(manifest, staging);
  else
    make_staging(staging);
  {
    Extraction extraction(manifest, manifest, archive, staging, progress, reserved);
    extraction.extract_files();
  }
  settle_tree(manifest, staging, progress);
}

}  // namespace tavro
