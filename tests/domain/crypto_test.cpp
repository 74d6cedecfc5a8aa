#include "domain/crypto.h"

#include <openssl/evp.h>

#include "documents/documents.h"
#include "documents/game_manifest.h"

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

// Key, nonce, associated data and record.
using Parts = std::array<std::string, 4>;

static unsigned char* bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

static std::string open(Parts parts, unsigned long limit, std::size_t room) {
  std::string out(room, '\0');
  const std::span<const unsigned char, 32> key(bytes(parts[0]), 32);
  const std::span<const unsigned char, 12> nonce(bytes(parts[1]), 12);
  out.resize(decrypt_chacha20_poly1305(key, nonce, parts[2], parts[3], out, limit));
  return out;
}

// Of RFC 8439, section 2.8.2.
TEST(Cipher, OpensThePublishedRecordUntilABitOfItFlips) {
  Parts parts = {"808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f",
                 "070000004041424344454647", "50515253c0c1c2c3c4c5c6c7",
                 "d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d63dbea45e8ca96712"
                 "82fafb69da92728b1a71de0a9e060b2905d6a5b67ecd3b3692ddbd7f2d778b8c9803aee328091b58"
                 "fab324e4fad675945585808b4831d7bc3ff4def08e4b7a9de576d26586cec64b61161ae10b594f09"
                 "e26a7e902ecbd0600691"};
  for (std::string& part : parts) {
    const auto raw = unhex(part, 260);
    part.assign(raw.begin(), raw.end());
  }
  EXPECT_EQ(open(parts, 114, 114).substr(72), "tip for the future, sunscreen would be it.");
  for (std::string& part : parts)
    for (const std::size_t at : {std::size_t{0}, part.size() - 1}) {
      part[at] ^= 1;
      EXPECT_EQ(code_of([&] { open(parts, 114, 114); }), "authentication_failed");
      part[at] ^= 1;
    }
}

// Bytes of the record and the associated data, the limit and the room; within them the tag decides.
TEST(Cipher, RefusesWhatExceedsABoundBeforeItLooks) {
  expect_answers(R"(authentication_failed|16 0 0 0|65552 4096 65536 65536|16 0 2147483631 0
encrypted_format|15 0 9 9|65553 0 65536 65537|25 0 9 8|25 4097 9 9|16 0 2147483632 0|16 0 -1 0)",
                 [](const std::string& row) {
                   std::size_t size = 0, aad = 0, limit = 0, room = 0;
                   std::istringstream(row) >> size >> aad >> limit >> room;
                   const std::string key(32, 'k'), record(size, 'r');
                   open({key, key, std::string(aad, 'a'), record}, limit, room);
                 });
}

TEST(Cipher, OpensAWholeArchiveChunkByChunk) {
  Parts parts = {std::string(32, 'k'), std::string(12, 'n'),
                 std::string(kEncryptedHeaderBytes, 'h')};
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  const auto sealed = [&](std::string text) {
    int size = static_cast<int>(text.size());
    std::string tag(kAuthenticationTagBytes, '\0');
    EVP_EncryptInit(context, EVP_chacha20_poly1305(), bytes(parts[0]), bytes(parts[1]));
    EVP_EncryptUpdate(context, nullptr, &size, bytes(parts[2]), 96);
    EVP_EncryptUpdate(context, bytes(text), &size, bytes(text), static_cast<int>(text.size()));
    EVP_EncryptFinal(context, nullptr, &size);
    EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, tag.data());
    return text + tag;
  };
  const std::string chunks[] = {std::string(kEncryptedChunkBytes, 'a'), "b"};
  std::string archive = parts[2];
  for (const std::string& chunk : chunks) archive += sealed(chunk), ++parts[1][0];
  EVP_CIPHER_CTX_free(context);
  EXPECT_EQ(archive.size(), chunked_archive_length(65537));
  for (const std::size_t at : {1, 0}) {
    --parts[1][0];
    parts[3] = archive.substr(96 + at * 65552, 65552);
    EXPECT_EQ(open(parts, 65536, 65536), chunks[at]);
  }
}

// Of RFC 7914, section 11.
TEST(Cipher, DerivesThePublishedKey) {
  const std::vector<unsigned char> salt = {'N', 'a', 'C', 'l'};
  EXPECT_EQ(hex(pbkdf2_sha256("Password", salt, 80000)),
            "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56");
  EXPECT_EQ(code_of([&] { pbkdf2_sha256(std::string(4097, 'p'), salt, 1); }), "crypto_failure");
  EXPECT_EQ(code_of([&] { pbkdf2_sha256("Password", salt, 0); }), "crypto_failure");
}

}  // namespace tavro
