// Times what a game's release costs beside the bare calls: opening encrypted chunks, and reading a
// game manifest. Prints one JSON document; bench/compare.py makes the table.

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <array>
#include <iostream>
#include <memory>
#include <string>

#include "documents/game_manifest.h"
#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/input.h"
#include "in_turn.h"

namespace {

using namespace tavro;

constexpr int chunks_a_round = 1024;
constexpr std::array<unsigned char, 32> key{};
constexpr std::array<unsigned char, 12> nonce{};

unsigned char* bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

/// Against the loop of `openssl speed`, which keeps its context and looks at nothing.
json decryption(int rounds) {
  const std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>> owner(EVP_CIPHER_CTX_new());
  EVP_CIPHER_CTX* context = owner.get();
  const int size = kEncryptedChunkBytes;
  int done = 0;
  std::string chunk(kEncryptedChunkBytes, 'x'), tag(kAuthenticationTagBytes, '\0');
  EVP_EncryptInit(context, EVP_chacha20_poly1305(), key.data(), nonce.data());
  EVP_EncryptUpdate(context, bytes(chunk), &done, bytes(chunk), size);
  EVP_EncryptFinal(context, nullptr, &done);
  EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, kAuthenticationTagBytes, tag.data());
  std::string record = chunk + tag, out(chunk.size(), '\0');
  EVP_DecryptInit(context, EVP_chacha20_poly1305(), key.data(), nonce.data());
  const auto ours = [&] {
    for (int i = 0; i < chunks_a_round; ++i)
      decrypt_chacha20_poly1305(key, nonce, "", record, out, kEncryptedChunkBytes);
  };
  const auto bare = [&] {
    for (int i = 0; i < chunks_a_round; ++i) {
      EVP_DecryptInit_ex(context, nullptr, nullptr, nullptr, nonce.data());
      EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, kAuthenticationTagBytes, tag.data());
      EVP_DecryptUpdate(context, bytes(out), &done, bytes(record), size);
      must(EVP_DecryptFinal_ex(context, nullptr, &done) == 1, "decryption");
    }
  };
  return in_turn(
      rounds, [&] { return timed(ours); }, [&] { return timed(bare); });
}

/// Against the snapshot in it alone.
json parsing(int rounds, const std::string& file) {
  const std::string text = read_file(file, 64u << 20);
  const json document = parse_json(text, text.size());
  return in_turn(
      rounds, [&] { return timed([&] { GameManifest::parse(document); }); },
      [&] { return timed([&] { SnapshotManifest::parse(document); }); });
}

}  // namespace

int main(int argc, char** argv) try {
  must(argc == 3, "usage: tavro-measure-games ROUNDS MANIFEST");
  const int rounds = std::stoi(argv[1]);
  std::cout << json{{"decryption", decryption(rounds)}, {"manifest", parsing(rounds, argv[2])}}
            << "\n";
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
