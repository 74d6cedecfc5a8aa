#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/documents.h"

namespace tavro {
namespace {

constexpr std::string_view kMessage = "signed words";

/// A fresh key, with one option of its generation.
struct Key {
  Key(const char* type, const char* option = nullptr, const char* value = nullptr) {
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    EVP_PKEY* made = nullptr;
    if (EVP_PKEY_keygen_init(context) == 1 &&
        (option == nullptr || EVP_PKEY_CTX_ctrl_str(context, option, value) == 1))
      EVP_PKEY_generate(context, &made);
    key.reset(made);
    EVP_PKEY_CTX_free(context);
    if (made == nullptr) return;
    BIO* out = BIO_new(BIO_s_mem());
    PEM_write_bio_PUBKEY(out, made);
    text.resize(BIO_pending(out));
    BIO_read(out, text.data(), static_cast<int>(text.size()));
    BIO_free(out);
    std::vector<unsigned char> raw(32);
    std::size_t size = raw.size();
    if (EVP_PKEY_get_raw_public_key(made, raw.data(), &size) == 1) text = hex(raw);
  }

  /// With a hash and a salt length the signature is RSA-PSS.
  std::string sign(std::string_view message, const EVP_MD* hash = nullptr, int salt = 0) const {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_PKEY_CTX* parameters = nullptr;
    EXPECT_EQ(EVP_DigestSignInit(context, &parameters, hash, nullptr, key.get()), 1);
    if (salt != 0) {
      EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING);
      EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, salt);
    }
    std::vector<unsigned char> signature(8192);
    std::size_t size = signature.size();
    const auto* bytes = reinterpret_cast<const unsigned char*>(message.data());
    EXPECT_EQ(EVP_DigestSign(context, signature.data(), &size, bytes, message.size()), 1);
    EVP_MD_CTX_free(context);
    return hex({signature.data(), size});
  }

  json record(const std::string& keytype, const std::string& scheme) const {
    return {{"keytype", keytype}, {"scheme", scheme}, {"keyval", {{"public", text}}}};
  }

  std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>> key;
  std::string text;
};

TEST(Signature, HoldsForItsOwnSchemeKeyAndMessageAlone) {
  const Key rsa("RSA", "rsa_keygen_bits", "2048"), ed25519("ED25519");
  const Key p256("EC", "ec_paramgen_curve", "P-256"), p384("EC", "ec_paramgen_curve", "P-384");
  const Key p521("EC", "ec_paramgen_curve", "P-521");
  const struct {
    std::string keytype, scheme;
    const Key& key;
    const EVP_MD* hash = nullptr;
    int salt = 0;
  } rows[] = {{"rsa", "rsassa-pss-sha256", rsa, EVP_sha256(), 32},
              {"rsa", "rsassa-pss-sha384", rsa, EVP_sha384(), 48},
              {"rsa", "rsassa-pss-sha512", rsa, EVP_sha512(), 64},
              {"ecdsa", "ecdsa-sha2-nistp256", p256, EVP_sha256()},
              {"ecdsa", "ecdsa-sha2-nistp384", p384, EVP_sha384()},
              {"ecdsa", "ecdsa-sha2-nistp521", p521, EVP_sha512()},
              {"ed25519", "ed25519", ed25519}};
  for (const auto& made : rows) {
    const std::string signature = made.key.sign(kMessage, made.hash, made.salt);
    for (const auto& claimed : rows) {
      const json record = made.key.record(claimed.keytype, claimed.scheme);
      EXPECT_EQ(verify_signature(record, kMessage, signature), &claimed == &made)
          << made.scheme << " as " << claimed.scheme;
    }
    const json record = made.key.record(made.keytype, made.scheme);
    EXPECT_FALSE(verify_signature(record, "other words!", signature)) << made.scheme;
    EXPECT_FALSE(verify_signature(record, kMessage, "")) << made.scheme;
    const std::string other = made.keytype == "rsa" ? "ecdsa" : "rsa";
    EXPECT_FALSE(verify_signature(made.key.record(other, made.scheme), kMessage, signature));
  }
  EXPECT_EQ(ERR_peek_error(), 0u) << "a refused key leaves nothing for the library's next user";
}

TEST(Signature, RsaKeysArePlainAndOfAtLeast2048BitsWithTheSaltOfTheirDigest) {
  const auto accepted = [](const Key& key, int salt) {
    return verify_signature(key.record("rsa", "rsassa-pss-sha256"), kMessage,
                            key.sign(kMessage, EVP_sha256(), salt));
  };
  EXPECT_FALSE(accepted(Key("RSA", "rsa_keygen_bits", "2048"), 20));
  EXPECT_FALSE(accepted(Key("RSA", "rsa_keygen_bits", "2047"), 32));
  EXPECT_FALSE(accepted(Key("RSA-PSS", "rsa_keygen_bits", "2048"), 32));
}

TEST(Signature, CountsDamagedDataAsNoSignature) {
  const Key key("ED25519");
  const std::string signature = key.sign(kMessage);
  const json good = key.record("ed25519", "ed25519");
  for (const std::string& text : {signature.substr(2), signature + "00", "g" + signature.substr(1)})
    EXPECT_FALSE(verify_signature(good, kMessage, text));
  const std::string short_key = "/keyval/public \"" + key.text.substr(2) + '"';
  for (const char* damage :
       {" 1", "/keytype", "/scheme 1", "/keyval", "/keyval/public {}", short_key.c_str()})
    EXPECT_FALSE(verify_signature(damaged(good, damage), kMessage, signature)) << damage;
}

TEST(Signature, ReadsPemTextUpToItsBoundAndNeverAsksForAPassword) {
  Key key("EC", "ec_paramgen_curve", "P-256");
  const std::string signature = key.sign(kMessage, EVP_sha256());
  const std::string plain = key.text;
  const auto accepted = [&](const std::string& text) {
    key.text = text;
    return verify_signature(key.record("ecdsa", "ecdsa-sha2-nistp256"), kMessage, signature);
  };
  const std::string lock = "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC," + std::string(32, '0');
  EXPECT_FALSE(accepted(std::string(plain).insert(plain.find('\n') + 1, lock + "\n\n")));
  EXPECT_TRUE(accepted(plain + std::string(16384 - plain.size(), '\n')));
  EXPECT_FALSE(accepted(plain + std::string(16385 - plain.size(), '\n')));
}

TEST(Signature, MlDsaSignsAPrefixedDigest) {
  const Key key("ML-DSA-44");
  if (!key.key) GTEST_SKIP() << "this crypto library has no ML-DSA";
  const auto hash = unhex(digest(kMessage, "sha512"), 128);
  const std::string signature = key.sign("tuf\x01" + std::string(hash.begin(), hash.end()));
  EXPECT_TRUE(verify_signature(key.record("ml-dsa", "ml-dsa-44/1"), kMessage, signature));
  EXPECT_FALSE(verify_signature(key.record("ml-dsa", "ml-dsa-65/1"), kMessage, signature));
  EXPECT_FALSE(verify_signature(key.record("ml-dsa", "ml-dsa-44/1"), kMessage, key.sign(kMessage)));
}

}  // namespace
}  // namespace tavro
