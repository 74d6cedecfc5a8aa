#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

enum class KeyType { ed25519, ecdsa_p256, rsa_3072 };

/// "ed25519", "ecdsa" or "rsa". Throws `usage` for any other word.
KeyType key_type(std::string_view word);

/// A private key of the repository with its public record. Moves, is not copied; the private half
/// is wiped when the object goes.
class SigningKey {
 public:
  static SigningKey generate(KeyType type);

  /// Reads a private key in PEM from an ordinary file, no link, of at most 65536 bytes to which
  /// nobody but its owner has access. Throws `key_file` when it is no such file or holds another
  /// kind of key.
  static SigningKey load(const std::filesystem::path& path);

  SigningKey(SigningKey&&) noexcept;
  SigningKey& operator=(SigningKey&&) noexcept;
  ~SigningKey();

  /// Keeps the private key as PEM (PKCS #8, not encrypted) in a new file of mode 0600, durably. An
  /// existing file is never replaced: `file_exists`. The folder must exist (`unsafe_path`) and is
  /// left as it is.
  void store(const std::filesystem::path& path) const;

  /// The signature over the message as lower-case hexadecimal text, as `verify_signature` reads it.
  std::string sign(std::string_view message) const;

  /// The key record that stands in metadata: `keytype`, `scheme` and `keyval.public`.
  const json& record() const;

  /// SHA-256 of the record's canonical form.
  const std::string& id() const;

 private:
  struct Impl;
  explicit SigningKey(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// The id under which metadata lists a key record.
std::string key_id(const json& record);

/// The public record of a key file: either a private key as `SigningKey::load` takes it, or a
/// public record as JSON (at most 65536 bytes). Throws `key_file` when it is neither.
json load_key_record(const std::filesystem::path& path);

}  // namespace tavro
