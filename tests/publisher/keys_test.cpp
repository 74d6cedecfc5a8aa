#include "publisher/keys.h"

#include "publisher/root_metadata.h"
#include "support/testing.h"

namespace tavro::keys_test {

TEST(Keys, OfEveryTypeSignForTheClientAndComeBackFromTheirFiles) {
  for (const char* type : {"ed25519", "ecdsa", "rsa"}) {
    const TempFolder temp;
    const fs::path path = temp.path() / "key.pem";
    const SigningKey key = SigningKey::generate(key_type(type));
    key.store(path);
    EXPECT_EQ(fs::status(path).permissions(), fs::perms{0600});
    const SigningKey loaded = SigningKey::load(path);
    EXPECT_EQ(code_of([&] { SigningKey::generate(key_type(type)).store(path); }), "file_exists");
    EXPECT_EQ(loaded.record(), key.record());
    EXPECT_EQ(loaded.record().at("keytype"), type);
    const std::string signature = loaded.sign("message");
    EXPECT_TRUE(verify_signature(key.record(), "message", signature));
  }
}

TEST(Keys, RefusesFilesThatAreNoKeyAndSaysWhy) {
  const TempFolder temp;
  const fs::path path = temp.path() / "key.pem";
  const SigningKey key = SigningKey::generate(KeyType::ed25519);
  EXPECT_FAILURE(load_key_record(path), "key_file: Cannot open key file: " + path.string());
  key.store(path);
  fs::permissions(path, fs::perms::group_read, fs::perm_options::add);
  EXPECT_FAILURE(load_key_record(path), "key_file: Other users can reach the private key " +
                                            path.string() + "; set its mode to 0600");
  const std::string none =
      "key_file: This file holds no private key in PEM without a passphrase: " + path.string();
  std::ofstream(path, std::ios::trunc) << key.record();
  EXPECT_EQ(load_key_record(path), key.record());
  EXPECT_FAILURE(SigningKey::load(path), none);
  std::ofstream(path, std::ios::trunc) << R"({"keytype":"ed25519"})";
  EXPECT_FAILURE(load_key_record(path),
                 "key_file: Invalid signing key shape in the public record " + path.string());
  fs::remove(path);
  key.store(temp.path() / "real.pem");
  fs::create_symlink(temp.path() / "real.pem", path);
  EXPECT_EQ(code_of([&] { SigningKey::load(path); }), "key_file");
}

TEST(Root, NeedsItsSignersAndWhatClientsCanUse) {
  const SigningKey first = SigningKey::generate(KeyType::ed25519);
  const SigningKey second = SigningKey::generate(KeyType::ecdsa_p256);
  const auto failure = [&](const std::vector<const SigningKey*>& signers, auto&& change) {
    RootRequest request;
    request.expires = expiry_in_days(1);
    request.root = {{first.record(), second.record()}, 2};
    request.timestamp.records = request.snapshot.records =
        request.targets.records = {first.record(), first.record()};
    change(request);
    return code_of([&] { check_root(sign_metadata(root_body(request), signers)); });
  };
  const std::vector<const SigningKey*> both = {&first, &second};
  EXPECT_EQ(failure(both, [](auto&) {}), "");
  // The same key twice is one signer, and must not become a repeated entry either.
  EXPECT_EQ(failure({&first, &first}, [](auto&) {}), "signature_threshold");
  EXPECT_EQ(failure(both, [](auto& r) { r.snapshot.threshold = 2; }), "invalid_threshold");
  EXPECT_EQ(failure(both, [](auto& r) { r.expires = "2001-01-01T00:00:00Z"; }), "expired_metadata");
  EXPECT_EQ(authority_record({{first.record(), first.record()}, 1}).at("keyids").size(), 1U);
}

}  // namespace tavro::keys_test
