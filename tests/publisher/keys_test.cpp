#include "publisher/keys.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <fstream>

#include "domain/crypto.h"
#include "publisher/root_metadata.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

class EveryKeyType : public testing::TestWithParam<const char*> {};

TEST_P(EveryKeyType, SignsForTheClientAndComesBackFromItsFile) {
  const TempFolder temp;
  const SigningKey key = SigningKey::generate(key_type(GetParam()));
  key.store(temp.path() / "key.pem");
  struct stat status {};
  ASSERT_EQ(::stat((temp.path() / "key.pem").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);

  const SigningKey loaded = SigningKey::load(temp.path() / "key.pem");
  EXPECT_EQ(loaded.id(), key.id());
  EXPECT_EQ(loaded.record().at("keytype"), GetParam());
  const std::string signature = loaded.sign("message");
  EXPECT_TRUE(verify_signature(key.record(), "message", signature));
  EXPECT_FALSE(verify_signature(key.record(), "massage", signature));
}

INSTANTIATE_TEST_SUITE_P(Keys, EveryKeyType, testing::Values("ed25519", "ecdsa", "rsa"),
                         [](const auto& row) { return std::string(row.param); });

TEST(Keys, ExistingFilesAreNeverReplaced) {
  const TempFolder temp;
  const SigningKey first = SigningKey::generate(KeyType::ed25519);
  first.store(temp.path() / "key.pem");
  const SigningKey second = SigningKey::generate(KeyType::ed25519);
  EXPECT_EQ(code_of([&] { second.store(temp.path() / "key.pem"); }), "file_exists");
  EXPECT_EQ(SigningKey::load(temp.path() / "key.pem").id(), first.id());
  // A dangling link stands in the way too: writing through it would put the key elsewhere.
  fs::create_symlink(temp.path() / "elsewhere", temp.path() / "link.pem");
  EXPECT_EQ(code_of([&] { second.store(temp.path() / "link.pem"); }), "file_exists");
  EXPECT_FALSE(fs::exists(temp.path() / "elsewhere"));
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
  // Everybody may reach what holds no private key: another advice is due.
  const std::string none =
      "key_file: This file holds no private key in PEM without a passphrase: " + path.string();
  std::ofstream(path, std::ios::trunc) << "-----BEGIN PUBLIC KEY-----";
  EXPECT_FAILURE(load_key_record(path), none);
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

class Root : public testing::Test {
 protected:
  Root() {
    request.expires = "2099-01-01T00:00:00Z";
    request.root = {{first.record(), second.record()}, 2};
    request.timestamp.records = request.snapshot.records =
        request.targets.records = {first.record()};
  }

  std::string failure(const std::vector<const SigningKey*>& signers) const {
    return code_of([&] { check_root(sign_metadata(root_body(request), signers)); });
  }

  SigningKey first = SigningKey::generate(KeyType::ed25519);
  SigningKey second = SigningKey::generate(KeyType::ecdsa_p256);
  RootRequest request;
};

TEST_F(Root, NeedsAsManySignersAsItsThreshold) {
  EXPECT_EQ(failure({&first, &second}), "");
  EXPECT_EQ(failure({&first}), "signature_threshold");
  // The same key twice is one signer, and must not become a repeated entry either.
  EXPECT_EQ(failure({&first, &first}), "signature_threshold");
  // Nor is it two keys of the role.
  EXPECT_EQ(authority_record({{first.record(), first.record()}, 1}).at("keyids").size(), 1U);
  request.root.threshold = 3;
  EXPECT_EQ(failure({&first, &second}), "invalid_threshold");
}

TEST_F(Root, RefusesWhatNoClientCouldUse) {
  request.snapshot.threshold = 2;
  EXPECT_EQ(failure({&first, &second}), "invalid_threshold");
  request.snapshot.threshold = 1;
  request.expires = "2001-01-01T00:00:00Z";
  EXPECT_EQ(failure({&first, &second}), "expired_metadata");
  request.expires = "tomorrow";
  EXPECT_EQ(failure({&first, &second}), "invalid_expiry");
  request.expires = expiry_in_days(1);
  EXPECT_EQ(failure({&first, &second}), "");
}

}  // namespace
}  // namespace tavro
