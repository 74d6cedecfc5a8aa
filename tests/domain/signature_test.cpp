#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "documents/documents.h"
#include "domain/crypto.h"
#include "domain/deleter.h"
#include "publisher/keys.h"

namespace tavro::signature_test {

const std::string kMessage = "signed words";

struct Signed {
  json record;
  std::string signature;
};

// By a fresh key of this size or curve. With a salt length the signature is RSA-PSS.
Signed sign(const char* keytype, const char* scheme, const char* type, const char* value,
            const EVP_MD* hash, int salt = 0) {
  const std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>> generation(
      EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* made = nullptr;
  EVP_PKEY_keygen_init(generation.get());
  EVP_PKEY_CTX_ctrl_str(generation.get(), salt ? "rsa_keygen_bits" : "ec_paramgen_curve", value);
  EVP_PKEY_generate(generation.get(), &made);
  const std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>> key(made);
  const std::unique_ptr<BIO, Deleter<BIO_free_all>> pem(BIO_new(BIO_s_mem()));
  PEM_write_bio_PUBKEY(pem.get(), made);
  std::string text(BIO_pending(pem.get()), '\0');
  BIO_read(pem.get(), text.data(), static_cast<int>(text.size()));
  const std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* parameters = nullptr;
  EVP_DigestSignInit(context.get(), &parameters, hash, nullptr, made);
  if (salt != 0 && EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) == 1)
    EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, salt);
  EVP_DigestSignUpdate(context.get(), kMessage.data(), kMessage.size());
  std::vector<unsigned char> bytes(1024);
  std::size_t size = bytes.size();
  EXPECT_EQ(EVP_DigestSignFinal(context.get(), bytes.data(), &size), 1);
  const json record = {{"keytype", keytype}, {"scheme", scheme}, {"keyval", {{"public", text}}}};
  return {record, hex({bytes.data(), size})};
}

TEST(Signature, HoldsForItsOwnSchemeKeyAndMessageAlone) {
  const SigningKey ed25519 = SigningKey::generate(KeyType::ed25519);
  const Signed rows[] = {sign("rsa", "rsassa-pss-sha256", "RSA", "2048", EVP_sha256(), 32),
                         sign("rsa", "rsassa-pss-sha384", "RSA", "2048", EVP_sha384(), 48),
                         sign("rsa", "rsassa-pss-sha512", "RSA", "2048", EVP_sha512(), 64),
                         sign("ecdsa", "ecdsa-sha2-nistp256", "EC", "P-256", EVP_sha256()),
                         sign("ecdsa", "ecdsa-sha2-nistp384", "EC", "P-384", EVP_sha384()),
                         sign("ecdsa", "ecdsa-sha2-nistp521", "EC", "P-521", EVP_sha512()),
                         {ed25519.record(), ed25519.sign(kMessage)}};
  for (const auto& [record, signature] : rows) {
    for (const Signed& other : rows)
      for (const char* member : {"keytype", "scheme", "keyval"}) {
        json claimed = record;
        claimed[member] = other.record[member];
        EXPECT_EQ(verify_signature(claimed, kMessage, signature), claimed == record) << claimed;
      }
    EXPECT_FALSE(verify_signature(record, "other words!", signature)) << record;
    EXPECT_FALSE(verify_signature(record, kMessage, "")) << record;
  }
  EXPECT_EQ(ERR_peek_error(), 0u) << "a refused key leaves nothing for the library's next user";
}

TEST(Signature, CountsOnlyKeysThatFitTheirScheme) {
  for (const auto& [record, signature] :
       {sign("rsa", "rsassa-pss-sha256", "RSA", "2048", EVP_sha256(), 20),
        sign("rsa", "rsassa-pss-sha256", "RSA", "2047", EVP_sha256(), 32),
        sign("ecdsa", "ecdsa-sha2-nistp256", "EC", "secp256k1", EVP_sha256()),
        sign("ml-dsa", "ml-dsa-44/1", "EC", "P-256", EVP_sha256())})
    EXPECT_FALSE(verify_signature(record, kMessage, signature)) << record;
}

TEST(Signature, CountsDamagedDataAsNoSignature) {
  const SigningKey key = SigningKey::generate(KeyType::ed25519);
  const std::string good = key.sign(kMessage), text = key.record()["keyval"]["public"];
  const std::string short_key = "/keyval/public \"" + text.substr(2) + '"';
  for (const char* damage : {"1", "/keytype", "/scheme 1", "/keyval", short_key.c_str()})
    EXPECT_FALSE(verify_signature(damaged(key.record(), damage), kMessage, good)) << damage;
  for (const std::string& signature : {good.substr(2), good + "00", "g" + good.substr(1)})
    EXPECT_FALSE(verify_signature(key.record(), kMessage, signature));
}

TEST(Signature, HoldsByNoKeyOfSmallOrder) {
  // All encodings of y, and the sign in the last bit. Any of them would take one of these
  // signatures (R, and S = 0) for one message in eight.
  const std::string zeros(64, '0'), ones = std::string(60, 'f') + "7f";
  const std::string eighth = "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05";
  const std::string other = "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a";
  std::vector<std::string> points;
  for (const std::string& y :
       {zeros, "01" + zeros.substr(2), eighth, other, "ec" + ones, "ed" + ones, "ee" + ones})
    for (const bool negative : {false, true}) {
      auto bytes = unhex(y, 64);
      if (negative) bytes.back() |= 0x80;
      points.push_back(hex(bytes));
    }
  for (const std::string& key : points) {
    const json record = {
        {"keytype", "ed25519"}, {"scheme", "ed25519"}, {"keyval", {{"public", key}}}};
    for (const std::string& r : points)
      for (int message = 0; message < 32; ++message)
        ASSERT_FALSE(verify_signature(record, std::to_string(message), r + zeros)) << key;
  }
}

TEST(Signature, HoldsByMlDsaOverThePrefixedDigestAlone) {
  const fs::path folder = fs::path(__FILE__).parent_path() / "vectors/ml-dsa";
  const std::string message = read_file(folder / "message", 64);
  for (const std::string set : {"44", "65", "87"}) {
    const std::string name = "ML-DSA-" + set;
    const std::unique_ptr<EVP_SIGNATURE, Deleter<EVP_SIGNATURE_free>> known(
        EVP_SIGNATURE_fetch(nullptr, name.c_str(), nullptr));
    ERR_clear_error();
    if (!known) GTEST_SKIP() << "this library cannot verify " << name;
    const json record = {
        {"keytype", "ml-dsa"},
        {"scheme", "ml-dsa-" + set + "/1"},
        {"keyval", {{"public", read_file(folder / ("ml-dsa-" + set + ".public.pem"), 16384)}}}};
    const std::string bytes = read_file(folder / ("ml-dsa-" + set + ".signature"), 8192);
    std::string signature =
        hex({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
    EXPECT_TRUE(verify_signature(record, message, signature)) << name;
    EXPECT_FALSE(verify_signature(record, message + '\n', signature)) << name;
    signature.back() = signature.back() == '0' ? '1' : '0';
    EXPECT_FALSE(verify_signature(record, message, signature)) << name;
  }
}

TEST(Signature, NeverAsksForAPassword) {
  auto [record, signature] = sign("ecdsa", "ecdsa-sha2-nistp256", "EC", "P-256", EVP_sha256());
  std::string pem = record["keyval"]["public"];
  const std::string lock = "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC," + std::string(32, '0');
  record["keyval"]["public"] = pem.insert(pem.find('\n') + 1, lock + "\n\n");
  EXPECT_FALSE(verify_signature(record, kMessage, signature));
}

}  // namespace tavro::signature_test
