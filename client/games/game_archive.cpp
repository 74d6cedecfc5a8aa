#include "games/game_archive.h"

#include <fcntl.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <exception>
#include <string>
#include <utility>

#include "documents/encrypted_archive.h"
#include "documents/game_catalog.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/archives/snapshot.h"
#include "platform/files/private_storage.h"
#include "tuf/metadata.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t record_bytes = kEncryptedChunkBytes + kAuthenticationTagBytes;

UniqueFd open_archive(const fs::path& path) {
  UniqueFd file = posix_files::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  require(bool(file), "archive", [&] { return "Cannot open the archive: " + path_utf8(path); });
  return file;
}

/// Reads until the block is full or the file ends.
std::size_t read_block(const UniqueFd& file, char* buffer, std::size_t size) {
  std::size_t count = 0;
  while (count < size) {
    const ssize_t got = read_some(file.get(), buffer + count, size - count);
    require(got >= 0, "archive", "The archive could not be read");
    if (got == 0) break;
    count += static_cast<std::size_t>(got);
  }
  return count;
}

/// The plain bytes of an encrypted archive, one chunk in memory at a time.
class EncryptedSource {
 public:
  EncryptedSource(const fs::path& archive, const fs::path& key_file, const GameManifest& manifest)
      : file_(open_archive(archive)) {
    const std::string key = read_file(key_file, kArchiveKeyBytes);
    require(key.size() == kArchiveKeyBytes, "key_mismatch", "The key has another length");
    std::copy(key.begin(), key.end(), key_.begin());
    head_text_.resize(kEncryptedHeaderBytes);
    head_text_.resize(read_block(file_, head_text_.data(), head_text_.size()));
    head_ = EncryptedHead::parse(head_text_);
    require(head_.archive_length == manifest.archive_length &&
                head_.archive_sha256 == manifest.archive_sha256,
            "content_mismatch", "The encrypted archive is that of another build");
  }
  ~EncryptedSource() {
    ::explicit_bzero(key_.data(), key_.size());
    ::explicit_bzero(chunk_.data(), chunk_.size());
  }
  EncryptedSource(const EncryptedSource&) = delete;
  EncryptedSource& operator=(const EncryptedSource&) = delete;

  std::size_t read(char* buffer, std::size_t size) {
    if (at_ == filled_) open_chunk();
    const std::size_t count = std::min(size, filled_ - at_);
    std::copy_n(chunk_.data() + at_, count, buffer);
    at_ += count;
    return count;
  }

 private:
  void open_chunk() {
    at_ = filled_ = 0;
    const std::size_t size = read_block(file_, record_.data(), record_.size());
    if (size == 0) return;
    try {
      filled_ = decrypt_chacha20_poly1305(key_, head_.nonce(number_), head_text_,
                                          {record_.data(), size}, chunk_, chunk_.size());
    } catch (const Error& error) {
      if (error.code != "authentication_failed") throw;
      fail("key_mismatch", "The published key does not open the archive of this build");
    }
    ++number_;
  }

  UniqueFd file_;
  std::array<unsigned char, kArchiveKeyBytes> key_{};
  std::string head_text_;
  EncryptedHead head_;
  std::array<char, record_bytes> record_{};
  std::array<char, kEncryptedChunkBytes> chunk_{};
  std::size_t filled_ = 0;
  std::size_t at_ = 0;
  std::uint64_t number_ = 0;
};

/// Runs the decoder, through which only the text of a failure passes, and raises the failure
/// itself.
template <typename Source, typename Work>
void with_own_failures(Source&& source, Work&& work) {
  std::exception_ptr own;
  try {
    work([&](char* buffer, std::size_t size) {
      try {
        return source(buffer, size);
      } catch (...) {
        own = std::current_exception();
        throw;
      }
    });
  } catch (...) {
    if (own) std::rethrow_exception(own);
    throw;
  }
}

}  // namespace

GameArchive::GameArchive(const GameManifest& manifest, std::string manifest_ref)
    : manifest_(manifest), manifest_ref_(std::move(manifest_ref)) {
  if (!is_encrypted_release(manifest)) {
    archive_ = {manifest.archive_target, manifest.archive_length, manifest.archive_sha256};
    return;
  }
  const EncryptedArchive& form = *manifest.encrypted;
  archive_ = {form.artifact_target, form.artifact_length, form.artifact_sha256};
  key_ = GameTarget{form.key_target, kArchiveKeyBytes, form.key_sha256};
}

std::vector<GameTarget> GameArchive::targets() const {
  if (!key_) return {archive_};
  return {archive_, *key_};
}

void GameArchive::require_published(TufClient& tuf) const {
  require_authorized(tuf, archive_);
  if (!key_) return;
  require(tuf.find_target(key_->path).has_value(), "key_not_published",
          "The key of this build is not published yet; try again later");
  require_authorized(tuf, *key_);
}

void GameArchive::fetch(TufClient& tuf, GameDownloads& downloads, const GameProgress& progress) {
  archive_file_ = downloads.fetch(tuf, archive_, manifest_ref_, progress, "downloading");
  if (key_) key_file_ = downloads.fetch(tuf, *key_, manifest_ref_, progress, "downloading");
}

void GameArchive::extract(const SnapshotManifest& part, const ReservedTree& tree,
                          const GameProgress& progress) const {
  extract_game(manifest_, part, archive_file_, key_file_, tree, [&](auto done, auto total) {
    return !progress || progress("unpacking", done, total);
  });
}

void extract_game(const GameManifest& manifest, const SnapshotManifest& part,
                  const fs::path& archive, const fs::path& key, const ReservedTree& tree,
                  const Progress& progress) {
  const auto extract_from = [&](auto&& source) {
    with_own_failures(source, [&](auto&& bytes) {
      extract_snapshot_part(manifest, part, bytes, tree.root, progress, tree);
    });
  };
  if (is_encrypted_release(manifest)) {
    EncryptedSource source(archive, key, manifest);
    extract_from([&](char* buffer, std::size_t size) { return source.read(buffer, size); });
    return;
  }
  const UniqueFd file = open_archive(archive);
  extract_from([&](char* buffer, std::size_t size) { return read_block(file, buffer, size); });
}

}  // namespace tavro
