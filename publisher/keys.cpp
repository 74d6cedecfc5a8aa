#include "publisher/keys.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <array>
#include <span>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/unique_fd.h"
#include "platform/files/durable_files.h"
#include "publisher/output.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

constexpr std::size_t key_file_bytes = 65536;
constexpr int least_rsa_bits = 2048;
constexpr std::size_t new_rsa_bits = 3072;

using EvpKey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using EvpContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO_free_all>>;

/// Text of a private key; wiped when it goes.
class SecretText {
 public:
  explicit SecretText(std::size_t room) : text_(room, '\0') {}
  SecretText(SecretText&&) noexcept = default;
  ~SecretText() { OPENSSL_cleanse(text_.data(), text_.size()); }
  std::string& text() { return text_; }

 private:
  std::string text_;
};

void require_crypto(bool condition, std::string_view message) {
  // What is left in the library's queue must not be taken for a later call's failure.
  if (!condition) ERR_clear_error();
  require(condition, "crypto_failure", message);
}

std::string bio_text(BIO* bio) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio, &bytes);
  return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : std::string();
}

std::string public_pem(EVP_PKEY* key) {
  const Bio bio(BIO_new(BIO_s_mem()));
  require_crypto(bio != nullptr && PEM_write_bio_PUBKEY(bio.get(), key) == 1,
                 "Cannot write the public key");
  return bio_text(bio.get());
}

std::string raw_public_hex(EVP_PKEY* key) {
  std::array<unsigned char, 32> raw{};
  std::size_t length = raw.size();
  require_crypto(EVP_PKEY_get_raw_public_key(key, raw.data(), &length) == 1,
                 "Cannot read the public key");
  return hex(std::span(raw).first(length));
}

bool is_p256(EVP_PKEY* key) {
  std::array<char, 80> group{};
  return EVP_PKEY_is_a(key, "EC") == 1 &&
         EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group.data(), group.size(),
                                        nullptr) == 1 &&
         std::string_view(group.data()) == "prime256v1";
}

bool is_plain_rsa(EVP_PKEY* key) {
  return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= least_rsa_bits;
}

json record_of(std::string_view type, std::string_view scheme, std::string text) {
  return {{"keytype", type}, {"scheme", scheme}, {"keyval", {{"public", std::move(text)}}}};
}

/// Null for a kind of key that this tool does not sign with.
json public_record(EVP_PKEY* key) {
  if (EVP_PKEY_is_a(key, "ED25519") == 1)
    return record_of("ed25519", "ed25519", raw_public_hex(key));
  if (is_p256(key)) return record_of("ecdsa", "ecdsa-sha2-nistp256", public_pem(key));
  if (is_plain_rsa(key)) return record_of("rsa", "rsassa-pss-sha256", public_pem(key));
  return nullptr;
}

EVP_PKEY* new_key(KeyType type) {
  switch (type) {
    case KeyType::ed25519:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    case KeyType::ecdsa_p256:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    case KeyType::rsa_3072:
      return EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", new_rsa_bits);
  }
  return nullptr;
}

struct KeyFile {
  SecretText content;
  bool others_reach_it;
};

/// Judged on the descriptor that is then read, so that no other file can slip in between. `follow`
/// is O_NOFOLLOW or 0.
KeyFile read_key_file(const std::filesystem::path& path, int follow) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | follow | O_NONBLOCK | O_CLOEXEC));
  require(file || errno == ELOOP, "key_file",
          [&] { return "Cannot open key file: " + path_utf8(path); });
  struct stat status {};
  require(file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode), "key_file",
          [&] { return "A key file must be an ordinary file, and no link: " + path_utf8(path); });
  SecretText secret(key_file_bytes + 1);
  std::string& text = secret.text();
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t count = read_some(file.get(), text.data() + length, text.size() - length);
    require(count >= 0, "key_file", [&] { return "Cannot read key file: " + path_utf8(path); });
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  require(length <= key_file_bytes, "key_file",
          [&] { return "This is no key file: " + path_utf8(path); });
  text.resize(length);
  return {std::move(secret), (status.st_mode & (S_IRWXG | S_IRWXO)) != 0};
}

// A passphrase is never asked for: a question in the middle of a release script would hang it.
int no_passphrase(char*, int, int, void*) { return -1; }

EvpKey parse_private_key(std::string_view text) {
  const Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (bio == nullptr) return nullptr;
  EvpKey key(PEM_read_bio_PrivateKey(bio.get(), nullptr, no_passphrase, nullptr));
  ERR_clear_error();
  return key;
}

bool begin_signature(EVP_MD_CTX* context, EVP_PKEY* key) {
  const bool raw = EVP_PKEY_is_a(key, "ED25519") == 1;
  EVP_PKEY_CTX* parameters = nullptr;
  if (EVP_DigestSignInit(context, &parameters, raw ? nullptr : EVP_sha256(), nullptr, key) != 1)
    return false;
  if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) return true;
  return EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(parameters, EVP_sha256()) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, RSA_PSS_SALTLEN_DIGEST) == 1;
}

json parse_public_record(const std::string& text, const std::filesystem::path& path) {
  try {
    json record = parse_json(text, key_file_bytes);
    verify_keys({{key_id(record), record}});
    return record;
  } catch (const Error& error) {
    fail("key_file", std::string(error.what()) + " in the public record " + path_utf8(path));
  }
}

}  // namespace

struct SigningKey::Impl {
  EvpKey key;
  json record;
  std::string id;

  explicit Impl(EvpKey owned) : key(std::move(owned)), record(public_record(key.get())) {
    if (!record.is_null()) id = key_id(record);
  }
};

KeyType key_type(std::string_view word) {
  if (word == "ed25519") return KeyType::ed25519;
  if (word == "ecdsa") return KeyType::ecdsa_p256;
  require(word == "rsa", "usage", "Choose the key type ed25519, ecdsa or rsa");
  return KeyType::rsa_3072;
}

std::string key_id(const json& record) { return digest(canonical_json(record), "sha256"); }

SigningKey::SigningKey(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SigningKey::SigningKey(SigningKey&&) noexcept = default;
SigningKey& SigningKey::operator=(SigningKey&&) noexcept = default;
SigningKey::~SigningKey() = default;

SigningKey SigningKey::generate(KeyType type) {
  EvpKey key(new_key(type));
  require_crypto(key != nullptr, "Cannot create a signing key");
  return SigningKey(std::make_unique<Impl>(std::move(key)));
}

SigningKey SigningKey::load(const std::filesystem::path& path) {
  KeyFile file = read_key_file(path, O_NOFOLLOW);
  EvpKey key = parse_private_key(file.content.text());
  require(key != nullptr, "key_file", [&] {
    return "This file holds no private key in PEM without a passphrase: " + path_utf8(path);
  });
  require(!file.others_reach_it, "key_file", [&] {
    return "Other users can reach the private key " + path_utf8(path) + "; set its mode to 0600";
  });
  auto impl = std::make_unique<Impl>(std::move(key));
  require(!impl->record.is_null(), "key_file", [&] {
    return "Keys are Ed25519, ECDSA P-256 or RSA of at least 2048 bits: " + path_utf8(path);
  });
  return SigningKey(std::move(impl));
}

void SigningKey::store(const std::filesystem::path& path) const {
  const std::filesystem::path place = std::filesystem::absolute(path);
  require_new(place);
  const Bio bio(BIO_new(BIO_s_secmem()));
  require_crypto(
      bio != nullptr && PEM_write_bio_PKCS8PrivateKey(bio.get(), impl_->key.get(), nullptr, nullptr,
                                                      0, nullptr, nullptr) == 1,
      "Cannot write the private key");
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &bytes);
  // This writer creates its file with mode 0600 and commits it with a link, which never replaces.
  atomic_create(place, std::string_view(bytes, static_cast<std::size_t>(length)));
}

std::string SigningKey::sign(std::string_view message) const {
  const EvpContext context(EVP_MD_CTX_new());
  require_crypto(context != nullptr && begin_signature(context.get(), impl_->key.get()),
                 "Cannot begin a signature");
  const auto* bytes = reinterpret_cast<const unsigned char*>(message.data());
  std::size_t length = 0;
  require_crypto(EVP_DigestSign(context.get(), nullptr, &length, bytes, message.size()) == 1,
                 "Cannot size a signature");
  std::vector<unsigned char> signature(length);
  require_crypto(
      EVP_DigestSign(context.get(), signature.data(), &length, bytes, message.size()) == 1,
      "Cannot sign");
  return hex(std::span(signature).first(length));
}

const json& SigningKey::record() const { return impl_->record; }
const std::string& SigningKey::id() const { return impl_->id; }

json load_key_record(const std::filesystem::path& path) {
  KeyFile file = read_key_file(path, 0);
  const std::string& text = file.content.text();
  // No PEM file begins like this.
  if (text.starts_with('{')) return parse_public_record(text, path);
  return SigningKey::load(path).record();
}

}  // namespace tavro
