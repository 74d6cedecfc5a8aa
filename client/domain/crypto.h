#pragma once

#include <array>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "domain/progress.h"

struct evp_md_st;

namespace tavro {

/// Sets up the crypto library without the system's configuration file. `main` calls it first; more
/// calls, from any thread, do nothing. Throws `crypto_failure`.
void initialize_client_runtime();

/// Lower-case text, two characters a byte. Digests are passed and compared in this form.
std::string hex(std::span<const unsigned char> bytes);

/// Takes both cases. `max_text` bounds the characters of the text. Throws `invalid_hex`.
std::vector<unsigned char> unhex(std::string_view text, std::size_t max_text);

/// True for exactly `length` characters of 0 to 9 and a to f.
bool is_lower_hex(std::string_view text, std::size_t length);

/// The library's handle for "sha256" or "sha512". Throws `unsupported_hash` for any other name.
const evp_md_st* algorithm(std::string_view name);

/// The digest of the bytes. Throws `unsupported_hash` or `crypto_failure`.
std::string digest(std::string_view data, std::string_view algorithm);

/// `digest_file_progress` without a callback.
std::string digest_file(const std::filesystem::path& path, std::string_view algorithm);

/// The digest of an ordinary file, read in blocks; a final link is followed. The callback comes
/// before the first block and after each one; false from it throws `cancelled`. Throws `file_read`,
/// `unsupported_hash`, `crypto_failure`, and `content_mismatch` when a watched file grows.
std::string digest_file_progress(const std::filesystem::path& path, std::string_view algorithm,
                                 const Progress& progress);

/// A digest that can be read at any point and then goes on. Belongs to one thread at a time.
class DigestState {
 public:
  /// Throws `unsupported_hash` or `crypto_failure`.
  explicit DigestState(std::string_view algorithm);
  DigestState(DigestState&&) noexcept;
  DigestState& operator=(DigestState&&) noexcept;
  ~DigestState();

  /// Throws `crypto_failure`.
  void update(std::string_view bytes);
  /// The digest of what was fed so far; the state stays as it is. Throws `crypto_failure`.
  std::string value() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// 16 random bytes as 32 lower-case hexadecimal characters. Throws `crypto_failure`.
std::string random_id();

/// True only for a valid signature of the exact bytes of `message` by `key`, a record with
/// `keytype`, `scheme` and `keyval.public`. `signature` is hexadecimal text of at most 16384
/// characters. Bad data of any kind is false; nothing is thrown.
bool verify_signature(const json& key, std::string_view message,
                      std::string_view signature) noexcept;

/// What an authenticated record has beyond its plaintext, in bytes.
inline constexpr std::size_t kAuthenticationTagBytes = 16;

/// Opens one ChaCha20-Poly1305 record, ciphertext and then tag, into `out` and returns the length
/// of the plaintext. `limit` is the longest plaintext that the caller accepts, at most 2147483631
/// bytes; `aad` has at most 4096. Throws `encrypted_format` for a bound, before any key is touched,
/// `authentication_failed` for a wrong key, nonce or `aad` and for damaged data, and
/// `crypto_failure`. After a throw `out` may hold bytes that nobody vouches for.
unsigned long decrypt_chacha20_poly1305(std::span<const unsigned char, 32> key,
                                        std::span<const unsigned char, 12> nonce,
                                        std::string_view aad, std::string_view record,
                                        std::span<char> out, unsigned long limit);

/// A key by PBKDF2 with HMAC-SHA-256. Password and salt have at most 4096 bytes each and may be
/// empty; 1 to 2147483647 iterations. Throws `crypto_failure`.
std::array<unsigned char, 32> pbkdf2_sha256(std::string_view password,
                                            std::span<const unsigned char> salt,
                                            unsigned iterations);

}  // namespace tavro
