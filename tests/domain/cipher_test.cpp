#include <openssl/evp.h>

#include "domain/crypto.h"
#include "domain/documents.h"
#include "domain/game_manifest.h"

namespace tavro {

struct Record {
  std::string text = {}, aad = {}, key = std::string(32, 'k'), nonce = std::string(12, 'n');
};

static const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

static std::string open(const Record& it, unsigned long limit = 65536, std::size_t room = 65536) {
  std::string out(room, '\0');
  const std::span<const unsigned char, 32> key(bytes(it.key), 32);
  const std::span<const unsigned char, 12> nonce(bytes(it.nonce), 12);
  out.resize(decrypt_chacha20_poly1305(key, nonce, it.aad, it.text, out, limit));
  return out;
}

static std::string seal(Record it) {
  const int size = static_cast<int>(it.text.size()), aad = static_cast<int>(it.aad.size());
  it.text.resize(it.text.size() + 16);
  auto* text = reinterpret_cast<unsigned char*>(it.text.data());
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int done = 0;
  EVP_EncryptInit(context, EVP_chacha20_poly1305(), bytes(it.key), bytes(it.nonce));
  EVP_EncryptUpdate(context, nullptr, &done, bytes(it.aad), aad);
  EVP_EncryptUpdate(context, text, &done, text, size);
  EVP_EncryptFinal(context, text + size, &done);
  EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, text + size);
  EVP_CIPHER_CTX_free(context);
  return it.text;
}

// The vectors of RFC 8439, section 2.8.2, and of RFC 7914, section 11.
TEST(Cipher, OpensThePublishedRecordUntilABitOfItFlips) {
  const auto raw = [](std::string_view hexadecimal) {
    const auto read = unhex(hexadecimal, 1024);
    return std::string(read.begin(), read.end());
  };
  const Record record = {
      raw("d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d63dbea45e8ca9671282fafb69"
          "da92728b1a71de0a9e060b2905d6a5b67ecd3b3692ddbd7f2d778b8c9803aee328091b58fab324e4fad67594"
          "5585808b4831d7bc3ff4def08e4b7a9de576d26586cec64b61161ae10b594f09e26a7e902ecbd0600691"),
      raw("50515253c0c1c2c3c4c5c6c7"),
      raw("808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f"),
      raw("070000004041424344454647")};
  EXPECT_EQ(open(record).substr(72), "tip for the future, sunscreen would be it.");
  for (std::string Record::*part : {&Record::text, &Record::aad, &Record::key, &Record::nonce})
    for (const bool last : {false, true}) {
      Record touched = record;
      (touched.*part)[last ? (touched.*part).size() - 1 : 0] ^= 1;
      EXPECT_FAILURE(open(touched), "authentication_failed: Encrypted chunk authentication failed");
    }
}

TEST(Cipher, DerivesThePublishedKeys) {
  const auto derived = [](const std::string& password, const std::string& salt, unsigned rounds) {
    return hex(pbkdf2_sha256(password, {bytes(salt), salt.size()}, rounds)).substr(0, 32);
  };
  EXPECT_EQ(derived("passwd", "salt", 1), "55ac046e56e3089fec1691c22544b605");
  EXPECT_EQ(derived("Password", "NaCl", 80000), "4ddcd8f60b98be21830cee5ef22701f9");
  for (const auto& [salt, rounds] : {std::pair(4097, 1u), {0, 0}, {0, 2147483648}})
    EXPECT_FAILURE(derived("", std::string(salt, 's'), rounds),
                   "crypto_failure: Key derivation input exceeds its bound");
}

// Bytes of the record and the associated data, the limit and the room; within them the tag decides.
TEST(Cipher, RefusesWhatExceedsABoundBeforeItLooks) {
  expect_answers(R"(authentication_failed|16 0 0 0|65552 4096 65536 65536|16 0 2147483631 0
encrypted_format|15 0 9 9|65553 0 65536 65537|25 0 9 8|25 4097 9 9|16 0 2147483632 0|16 0 -1 0)",
                 [](const std::string& row) {
                   std::size_t size = 0, aad = 0, limit = 0, room = 0;
                   std::istringstream(row) >> size >> aad >> limit >> room;
                   open({std::string(size, 'r'), std::string(aad, 'a')}, limit, room);
                 });
}

TEST(Cipher, OpensAWholeArchiveChunkByChunk) {
  std::string plain(3 * kEncryptedChunkBytes + 1, '\0'), archive(kEncryptedHeaderBytes, 'h'), back;
  for (std::size_t at = 0; at < plain.size(); ++at) plain[at] = static_cast<char>(at * at >> 3);
  Record chunk = {"", archive};
  for (std::size_t at = 0; at < plain.size(); at += kEncryptedChunkBytes, ++chunk.nonce[0]) {
    chunk.text = plain.substr(at, kEncryptedChunkBytes);
    archive += seal(chunk);
  }
  EXPECT_EQ(archive.size(), chunked_archive_length(plain.size()));
  chunk.nonce[0] = 'n';
  for (std::size_t at = 96; at < archive.size(); at += chunk.text.size(), ++chunk.nonce[0]) {
    chunk.text = archive.substr(at, 65552);
    back += open(chunk);
  }
  EXPECT_TRUE(back == plain && open({seal({})}).empty());
}

}  // namespace tavro
