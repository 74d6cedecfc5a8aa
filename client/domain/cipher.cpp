#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <limits>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"

namespace tavro {
namespace {

// The most that one call of the library takes, less a tag.
constexpr unsigned long kMaxPlaintext = 0x7fffffef;
constexpr std::size_t kMaxAssociatedData = 4096;
constexpr std::size_t kMaxDerivationInput = 4096;

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;

const unsigned char* bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

bool set_parameters(EVP_CIPHER_CTX* context, std::span<const unsigned char, 32> key,
                    std::span<const unsigned char, 12> nonce, std::string_view tag) {
  std::array<unsigned char, kAuthenticationTagBytes> expected;
  std::copy(tag.begin(), tag.end(), expected.begin());
  return EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, kAuthenticationTagBytes,
                             expected.data()) == 1 &&
         EVP_DecryptInit_ex2(context, nullptr, key.data(), nonce.data(), nullptr) == 1;
}

bool update(EVP_CIPHER_CTX* context, char* out, int& length, std::string_view input) {
  return EVP_DecryptUpdate(context, reinterpret_cast<unsigned char*>(out), &length, bytes(input),
                           static_cast<int>(input.size())) == 1;
}

}  // namespace

unsigned long decrypt_chacha20_poly1305(std::span<const unsigned char, 32> key,
                                        std::span<const unsigned char, 12> nonce,
                                        std::string_view aad, std::string_view record,
                                        std::span<char> out, unsigned long limit) {
  // The limit first: with a greater one the sum below could wrap.
  require(limit <= kMaxPlaintext && record.size() >= kAuthenticationTagBytes &&
              record.size() <= limit + kAuthenticationTagBytes &&
              out.size() >= record.size() - kAuthenticationTagBytes &&
              aad.size() <= kMaxAssociatedData,
          "encrypted_format", "AEAD record or associated data exceeds its bound");
  const std::size_t size = record.size() - kAuthenticationTagBytes;
  const CipherContext context(EVP_CIPHER_CTX_new());
  require(context && EVP_DecryptInit_ex2(context.get(), EVP_chacha20_poly1305(), nullptr, nullptr,
                                         nullptr) == 1,
          "crypto_failure", "Cannot initialize authenticated chunk decryption");
  require(set_parameters(context.get(), key, nonce, record.substr(size)), "crypto_failure",
          "Cannot set authenticated chunk parameters");
  int length = 0;
  require(update(context.get(), nullptr, length, aad) &&
              update(context.get(), out.data(), length, record.substr(0, size)),
          "crypto_failure", "Cannot decrypt authenticated chunk");
  require(length >= 0 && static_cast<std::size_t>(length) <= size, "crypto_failure",
          "Unexpected authenticated chunk output");
  std::array<unsigned char, kAuthenticationTagBytes> scratch{};
  int rest = 0;
  const int authentic = EVP_DecryptFinal_ex(context.get(), scratch.data(), &rest);
  OPENSSL_cleanse(scratch.data(), scratch.size());
  require(authentic == 1, "authentication_failed", "Encrypted chunk authentication failed");
  require(rest == 0 && static_cast<std::size_t>(length) == size, "crypto_failure",
          "Authenticated chunk length differs");
  return size;
}

std::array<unsigned char, 32> pbkdf2_sha256(std::string_view password,
                                            std::span<const unsigned char> salt,
                                            unsigned iterations) {
  require(password.size() <= kMaxDerivationInput && salt.size() <= kMaxDerivationInput &&
              iterations >= 1 && iterations <= std::numeric_limits<int>::max(),
          "crypto_failure", "Key derivation input exceeds its bound");
  std::array<unsigned char, 32> key{};
  require(PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(),
                            static_cast<int>(salt.size()), static_cast<int>(iterations),
                            EVP_sha256(), static_cast<int>(key.size()), key.data()) == 1,
          "crypto_failure", "Cannot derive a key");
  return key;
}

}  // namespace tavro
