#include "publisher/archive_encryption.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <memory>
#include <span>

#include "documents/encrypted_archive.h"
#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "publisher/output.h"

namespace tavro {
namespace {

using Cipher = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;

void require_done(int result) {
  require(result == 1, "crypto_failure", "Cannot encrypt the archive");
}

const unsigned char* bytes_of(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// A key for one archive; wiped when the object goes.
class ArchiveKey {
 public:
  ArchiveKey() {
    require(RAND_priv_bytes(key_.data(), static_cast<int>(key_.size())) == 1, "crypto_failure",
            "The system gives no random key");
  }
  ArchiveKey(ArchiveKey&&) = delete;
  ~ArchiveKey() { OPENSSL_cleanse(key_.data(), key_.size()); }

  std::string_view bytes() const {
    return {reinterpret_cast<const char*>(key_.data()), key_.size()};
  }

 private:
  std::array<unsigned char, kArchiveKeyBytes> key_{};
};

/// The records of one archive, each under the next nonce.
class Records {
 public:
  Records(const ArchiveKey& key, const EncryptedHead& head)
      : key_(key), head_(head), head_text_(head.to_bytes()), cipher_(EVP_CIPHER_CTX_new()) {
    require(cipher_ != nullptr, "crypto_failure", "Cannot encrypt the archive");
  }

  /// The record of the next chunk; valid until the next call.
  std::string_view seal(std::string_view chunk) {
    const auto nonce = head_.nonce(number_++);
    int count = 0;
    require_done(EVP_EncryptInit_ex2(cipher_.get(), EVP_chacha20_poly1305(), bytes_of(key_.bytes()),
                                     nonce.data(), nullptr));
    require_done(EVP_EncryptUpdate(cipher_.get(), nullptr, &count, bytes_of(head_text_),
                                   static_cast<int>(head_text_.size())));
    require_done(EVP_EncryptUpdate(cipher_.get(), record_.data(), &count, bytes_of(chunk),
                                   static_cast<int>(chunk.size())));
    require_done(EVP_EncryptFinal_ex(cipher_.get(), record_.data() + count, &count));
    require_done(EVP_CIPHER_CTX_ctrl(cipher_.get(), EVP_CTRL_AEAD_GET_TAG,
                                     static_cast<int>(kAuthenticationTagBytes),
                                     record_.data() + chunk.size()));
    return {reinterpret_cast<const char*>(record_.data()), chunk.size() + kAuthenticationTagBytes};
  }

 private:
  const ArchiveKey& key_;
  const EncryptedHead& head_;
  std::string head_text_;
  Cipher cipher_;
  std::uint64_t number_ = 0;
  std::array<unsigned char, kEncryptedChunkBytes + kAuthenticationTagBytes> record_{};
};

/// The chunks of an archive; all but the last are full.
class Chunks {
 public:
  explicit Chunks(const std::filesystem::path& archive)
      : path_(archive), file_(::open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)) {
    require(static_cast<bool>(file_), "file_read", [&] { return unreadable(); });
  }

  /// Empty at the end; valid until the next call.
  std::string_view next() {
    std::size_t filled = 0;
    while (filled < block_.size()) {
      const ssize_t count = read_some(file_.get(), block_.data() + filled, block_.size() - filled);
      require(count >= 0, "file_read", [&] { return unreadable(); });
      if (count == 0) break;
      filled += static_cast<std::size_t>(count);
    }
    return {block_.data(), filled};
  }

 private:
  std::string unreadable() const { return "Cannot read file: " + path_utf8(path_); }

  const std::filesystem::path& path_;
  UniqueFd file_;
  std::array<char, kEncryptedChunkBytes> block_{};
};

}  // namespace

EncryptionFigures encrypt_archive(const std::filesystem::path& archive, const ArchiveFigures& plain,
                                  const std::filesystem::path& artifact,
                                  const std::filesystem::path& key_file, const Progress& progress) {
  const ArchiveKey key;
  EncryptedHead head{.archive_length = plain.length, .archive_sha256 = plain.sha256};
  require(RAND_bytes(head.nonce_start.data(), static_cast<int>(head.nonce_start.size())) == 1,
          "crypto_failure", "The system gives no random nonce");
  atomic_create(key_file, key.bytes());

  OutputFile file(artifact);
  DigestState plain_digest("sha256"), digest_of_form("sha256");
  const auto put = [&](std::string_view bytes) {
    digest_of_form.update(bytes);
    file.write(bytes);
  };
  put(head.to_bytes());
  Records records(key, head);
  Chunks chunks(archive);
  unsigned long long done = 0;
  for (std::string_view chunk = chunks.next(); !chunk.empty(); chunk = chunks.next()) {
    report(progress, done, plain.length);
    plain_digest.update(chunk);
    put(records.seal(chunk));
    done += chunk.size();
  }
  require(done == plain.length && plain_digest.value() == plain.sha256, "content_mismatch",
          [&] { return "The archive changed while it was encrypted: " + path_utf8(archive); });
  file.finish();
  return {file.written(), digest_of_form.value(), digest(key.bytes(), "sha256")};
}

}  // namespace tavro
