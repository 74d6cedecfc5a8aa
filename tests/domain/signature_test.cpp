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
    const std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>> context(
        EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* made = nullptr;
    EVP_PKEY_keygen_init(context.get());
    if (option != nullptr) EVP_PKEY_CTX_ctrl_str(context.get(), option, value);
    EVP_PKEY_generate(context.get(), &made);
    key.reset(made);
    const std::unique_ptr<BIO, Deleter<BIO_free_all>> out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PUBKEY(out.get(), made);
    text.resize(BIO_pending(out.get()));
    BIO_read(out.get(), text.data(), static_cast<int>(text.size()));
    std::vector<unsigned char> raw(32);
    std::size_t size = raw.size();
    if (EVP_PKEY_get_raw_public_key(made, raw.data(), &size) == 1) text = hex(raw);
  }

  /// With a salt length the signature is RSA-PSS.
  std::string sign(const EVP_MD* hash = nullptr, int salt = 0) const {
    const std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    EVP_DigestSignInit(context.get(), &parameters, hash, nullptr, key.get());
    if (salt != 0) EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING);
    if (salt != 0) EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, salt);
    std::vector<unsigned char> signature(1024);
    std::size_t size = signature.size();
    const auto* bytes = reinterpret_cast<const unsigned char*>(kMessage.data());
    EXPECT_EQ(EVP_DigestSign(context.get(), signature.data(), &size, bytes, kMessage.size()), 1);
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
              {"ed25519", "ed25519", ed25519},
              {"ml-dsa", "ml-dsa-44/1", p256, EVP_sha512()}};
  for (const auto& made : rows) {
    const std::string signature = made.key.sign(made.hash, made.salt);
    for (const auto& claimed : rows) {
      const json record = made.key.record(claimed.keytype, claimed.scheme);
      EXPECT_EQ(verify_signature(record, kMessage, signature),
                &claimed == &made && made.keytype != "ml-dsa")
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
                            key.sign(EVP_sha256(), salt));
  };
  EXPECT_FALSE(accepted(Key("RSA", "rsa_keygen_bits", "2048"), 20));
  EXPECT_FALSE(accepted(Key("RSA", "rsa_keygen_bits", "2047"), 32));
  EXPECT_FALSE(accepted(Key("RSA-PSS", "rsa_keygen_bits", "2048"), 32));
}

TEST(Signature, CountsDamagedDataAsNoSignature) {
  const Key key("ED25519");
  const std::string signature = key.sign();
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
  const std::string signature = key.sign(EVP_sha256());
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

}  // namespace
}  // namespace tavro
