#include "tuf/tuf.h"

#include "support/fail_nth_call.h"
#include "tuf/trusted_client.h"

namespace tavro::tuf_test {

using Requests = std::vector<std::string>;
using Repository = SignedRepository;

TEST(TufClient, StartsFromAProvedRootAndHasItsFolderAlone) {
  TrustedClient trusted;
  Repository& repository = trusted.repository;
  const auto initialize = [&](const std::string& name, const std::string& root) {
    return code_of([&] { TufClient::initialize(trusted.folder.path() / name, root); });
  };
  EXPECT_EQ(initialize("trust", repository.root_bytes()), "already_initialized");
  trusted.reopen();
  EXPECT_EQ(initialize("trust", repository.root_bytes()), "busy");
  EXPECT_EQ(code_of([&] { TufClient(trusted.trust, repository, repository, trusted.limits, {}); }),
            "busy");
  repository.root["expires"] = "2020-01-01T00:00:00Z";
  repository.set_keys("root", {"root", "root-second"}, 2);
  const std::string good = repository.root_bytes();
  repository.signers["root"] = {"root"};
  EXPECT_EQ(initialize("other", repository.root_bytes()), "signature_threshold");
  EXPECT_EQ(initialize("other", good + std::string(524289 - good.size(), ' ')), "size_limit");
  EXPECT_EQ(initialize("other", good), "") << "nothing was stored, and nobody asks for expiry";
  std::ofstream(trusted.trust / "root.json") << repository.root_bytes();
  EXPECT_EQ(trusted.refresh_code(), "signature_threshold");
  EXPECT_TRUE(repository.requests.empty());
}

TEST(Refresh, StoresVerbatimAndAsksForNothingTwice) {
  for (const std::string prefix : {"1.", ""}) {
    TrustedClient trusted;
    Repository& repository = trusted.repository;
    repository.root["consistent_snapshot"] = !prefix.empty();
    repository.publish_root();
    repository.publish();
    EXPECT_EQ(trusted.refresh_code(), "");
    EXPECT_EQ(repository.requests, (Requests{"2.root.json", "3.root.json", "timestamp.json",
                                             prefix + "snapshot.json", prefix + "targets.json"}));
    const auto stored = trusted.stored();
    EXPECT_EQ(stored.size(), 4u);
    EXPECT_EQ(stored.at("root.json"), repository.files.at("2.root.json").body);
    EXPECT_EQ(stored.at("targets.json"), repository.files.at(prefix + "targets.json").body);
    EXPECT_EQ(trusted.refresh_code(), "");
    EXPECT_EQ(repository.requests, (Requests{"3.root.json", "timestamp.json"}));
  }
}

TEST(Refresh, WalksTheRootsBeforeItAsksForExpiry) {
  TrustedClient trusted;
  Repository& repository = trusted.repository;
  repository.root["expires"] = kNow;
  repository.publish_root();
  EXPECT_EQ(trusted.refresh_code(), "expired_metadata");
  repository.root["expires"] = "2040-01-01T00:00:00Z";
  repository.set_keys("root", {"rsa-new", "root-new"}, 2);
  repository.signers["root"].push_back("root");
  for (int count = 0; count < 5; ++count) repository.publish_root();
  trusted.limits.root_rotations = 2;
  EXPECT_EQ(trusted.refresh_code(), "");
  EXPECT_EQ(trusted.stored().at("root.json"), repository.files.at("4.root.json").body);
  trusted.limits.root_rotations = 0;
  EXPECT_EQ(trusted.refresh_code(), "");
  EXPECT_EQ(repository.requests, Requests{"timestamp.json"});
}

TEST(Refresh, ForgetsWhatRotatedOnlineKeysSigned) {
  // Stolen online keys signed versions that nothing can follow; only a rotation helps.
  TrustedClient trusted;
  Repository& repository = trusted.repository;
  repository.timestamp["version"] = repository.snapshot["version"] = 18446744073709551615u;
  repository.publish();
  ASSERT_EQ(trusted.refresh_code(), "");
  const auto saved = trusted.folder.path() / "saved";
  std::filesystem::copy(trusted.trust, saved);
  for (const char* role : {"timestamp", "snapshot"}) repository.set_keys(role, {"new"});
  repository.timestamp["version"] = repository.snapshot["version"] = 3;
  repository.publish_root();
  repository.publish();
  for (const Fault fault : {Fault::cut, Fault::fail}) {
    const auto prepare = [&] {
      trusted.client.reset();
      fs::remove_all(trusted.trust);
      fs::copy(saved, trusted.trust);
    };
    const auto check = [&](const Stop& stop) {
      // After a mere failure the same client may try again.
      if (fault == Fault::cut || !trusted.client) trusted.reopen();
      EXPECT_EQ(code_of([&] { trusted.client->target("x"); }), "target_not_found") << stop.nth;
      const auto stored = trusted.stored();
      EXPECT_FALSE(stored.contains("root-invalidation.json")) << stop.nth;
      EXPECT_EQ(stored.at("snapshot.json"), repository.files.at("3.snapshot.json").body);
    };
    const auto work = [&] { trusted.reopen().refresh(); };
    EXPECT_GT(strike_each_call(fault, EIO, prepare, work, check), 20);
  }
}

TEST(Refresh, KeepsTheStoredTimestampOfAnEqualVersion) {
  TrustedClient trusted;
  ASSERT_EQ(trusted.refresh_code(), "");
  trusted.repository.root["expires"] = "9999-12-31T23:59:59Z";
  trusted.repository.publish_root();
  trusted.repository.files["timestamp.json"].body += '\n';
  const auto before = trusted.stored().at("timestamp.json");
  trusted.now = parse_tuf_time("2040-01-01T00:00:00Z");
  EXPECT_EQ(trusted.refresh_code(), "") << "its expiry is left to the next look-up";
  EXPECT_EQ(trusted.stored().at("timestamp.json"), before);
  EXPECT_EQ(failure_of([&] { trusted.client->target("x"); }),
            "expired_metadata: Repository metadata has expired; previously installed games remain "
            "playable");
}

}  // namespace tavro::tuf_test
