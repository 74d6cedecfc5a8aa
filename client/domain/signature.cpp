#include <nlohmann/json.hpp>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <exception>

#include "domain/crypto.h"
#include "domain/deleter.h"

namespace tavro {
namespace {

constexpr std::size_t kMaxKeyText = 16384;
constexpr std::size_t kMaxSignatureText = 16384;
constexpr int kMinRsaBits = 2048;

using EvpKey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Bytes = std::vector<unsigned char>;

enum class Family { rsa, ecdsa, ed25519, ml_dsa };

struct Scheme {
  std::string_view keytype;
  std::string_view name;
  Family family;
  // Null where the algorithm hashes by itself.
  const EVP_MD* (*hash)();
  // The library's name for the group or the key.
  const char* key_name;
};

constexpr std::array<Scheme, 10> kSchemes = {{
    {"rsa", "rsassa-pss-sha256", Family::rsa, EVP_sha256, ""},
    {"rsa", "rsassa-pss-sha384", Family::rsa, EVP_sha384, ""},
    {"rsa", "rsassa-pss-sha512", Family::rsa, EVP_sha512, ""},
    {"ecdsa", "ecdsa-sha2-nistp256", Family::ecdsa, EVP_sha256, "prime256v1"},
    {"ecdsa", "ecdsa-sha2-nistp384", Family::ecdsa, EVP_sha384, "secp384r1"},
    {"ecdsa", "ecdsa-sha2-nistp521", Family::ecdsa, EVP_sha512, "secp521r1"},
    {"ed25519", "ed25519", Family::ed25519, nullptr, ""},
    {"ml-dsa", "ml-dsa-44/1", Family::ml_dsa, nullptr, "ML-DSA-44"},
    {"ml-dsa", "ml-dsa-65/1", Family::ml_dsa, nullptr, "ML-DSA-65"},
    {"ml-dsa", "ml-dsa-87/1", Family::ml_dsa, nullptr, "ML-DSA-87"},
}};

const Scheme* find_scheme(const json& key) {
  const auto& name = key.at("scheme").get_ref<const std::string&>();
  const auto& keytype = key.at("keytype").get_ref<const std::string&>();
  const auto* found = std::find_if(kSchemes.begin(), kSchemes.end(), [&](const Scheme& scheme) {
    return scheme.keytype == keytype && scheme.name == name;
  });
  return found == kSchemes.end() ? nullptr : found;
}

// Foreign key text leaves nothing in the thread's error queue for the next user of the library.
class ErrorMark {
 public:
  ErrorMark() { ERR_set_mark(); }
  ~ErrorMark() { ERR_pop_to_mark(); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
};

// A key that claims to be encrypted would otherwise make the library ask on the terminal.
int refuse_password(char*, int, int, void*) { return -1; }

EvpKey read_pem(std::string_view text) {
  if (text.size() > kMaxKeyText) return nullptr;
  const std::unique_ptr<BIO, Deleter<BIO_free_all>> source(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (!source) return nullptr;
  return EvpKey(PEM_read_bio_PUBKEY(source.get(), nullptr, refuse_password, nullptr));
}

// A point whose order divides 8 is no key: a signature that anybody can make would hold for every
// message, or every eighth one. These are all their encodings but for the sign, which stands in the
// last bit; the last two are longer forms of the first two.
constexpr std::array<std::string_view, 7> kSmallOrderPoints = {
    "0000000000000000000000000000000000000000000000000000000000000000",
    "0100000000000000000000000000000000000000000000000000000000000000",
    "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05",
    "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a",
    "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
    "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
    "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"};

bool has_small_order(Bytes point) {
  point.back() &= 0x7f;
  return std::ranges::find(kSmallOrderPoints, hex(point)) != kSmallOrderPoints.end();
}

EvpKey read_ed25519(std::string_view text) {
  const Bytes raw = unhex(text, kMaxKeyText);
  if (raw.size() != 32 || has_small_order(raw)) return nullptr;
  return EvpKey(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw.data(), raw.size()));
}

bool group_is(EVP_PKEY* key, std::string_view expected) {
  std::array<char, 80> group{};
  std::size_t length = 0;
  return EVP_PKEY_get_utf8_string_param(key, "group", group.data(), group.size(), &length) == 1 &&
         std::string_view(group.data(), length) == expected;
}

bool key_fits(EVP_PKEY* key, const Scheme& scheme) {
  switch (scheme.family) {
    case Family::rsa:
      return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= kMinRsaBits;
    case Family::ecdsa:
      return group_is(key, scheme.key_name);
    case Family::ed25519:
      return true;
    case Family::ml_dsa:
      return EVP_PKEY_is_a(key, scheme.key_name) == 1;
  }
  return false;
}

bool use_pss(EVP_PKEY_CTX* context, const EVP_MD* hash) {
  return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(context, hash) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1;
}

// What an ML-DSA key signs in place of the message: a fixed prefix and the message's SHA-512.
Bytes ml_dsa_message(std::string_view message) {
  Bytes bytes = {0x74, 0x75, 0x66, 0x01};
  const Bytes hash = unhex(digest(message, "sha512"), 128);
  bytes.insert(bytes.end(), hash.begin(), hash.end());
  return bytes;
}

bool verified(EVP_PKEY* key, const Scheme& scheme, std::span<const unsigned char> message,
              const Bytes& signature) {
  const std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
  const EVP_MD* hash = scheme.hash == nullptr ? nullptr : scheme.hash();
  EVP_PKEY_CTX* parameters = nullptr;
  if (!context || EVP_DigestVerifyInit(context.get(), &parameters, hash, nullptr, key) != 1)
    return false;
  if (scheme.family == Family::rsa && !use_pss(parameters, hash)) return false;
  return EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                          message.size()) == 1;
}

bool verify(const json& record, std::string_view message, std::string_view signature_text) {
  const auto& public_text = record.at("keyval").at("public").get_ref<const std::string&>();
  const Bytes signature = unhex(signature_text, kMaxSignatureText);
  const Scheme* scheme = find_scheme(record);
  if (scheme == nullptr) return false;
  const bool is_ed25519 = scheme->family == Family::ed25519;
  if (is_ed25519 && signature.size() != 64) return false;
  const EvpKey key = is_ed25519 ? read_ed25519(public_text) : read_pem(public_text);
  if (!key || !key_fits(key.get(), *scheme)) return false;
  if (scheme->family == Family::ml_dsa)
    return verified(key.get(), *scheme, ml_dsa_message(message), signature);
  const auto* bytes = reinterpret_cast<const unsigned char*>(message.data());
  return verified(key.get(), *scheme, {bytes, message.size()}, signature);
}

}  // namespace

bool verify_signature(const json& key, std::string_view message,
                      std::string_view signature) noexcept {
  const ErrorMark mark;
  try {
    return verify(key, message, signature);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavro
