#include <gtest/gtest.h>

#include <fstream>

#include "support/fail_nth_call.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

using Requests = std::vector<std::string>;
using Repository = SignedRepository;

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
    EXPECT_EQ(stored.at("timestamp.json"), repository.files.at("timestamp.json").body);
    for (const std::string name : {"snapshot.json", "targets.json"})
      EXPECT_EQ(stored.at(name), repository.files.at(prefix + name).body);
    EXPECT_EQ(trusted.refresh_code(), "");
    EXPECT_EQ(repository.requests, (Requests{"3.root.json", "timestamp.json"}));
  }
}

/// What is served to a client that holds version 2 of everything; honest would be version 3.
struct Attack {
  const char* code;
  /// Files that the client may have replaced: they were proved before another one failed.
  std::vector<const char*> proved;
  void (*serve)(Repository&);
};

void expect_withstands(const Attack& attack, bool publishes) {
  TrustedClient trusted;
  Repository& repository = trusted.repository;
  repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
  repository.publish_update();
  ASSERT_EQ(trusted.refresh_code(), "");
  repository.publish_update();
  attack.serve(repository);
  if (publishes) repository.publish();
  auto before = trusted.stored();
  EXPECT_EQ(trusted.refresh_code(), attack.code);
  auto after = trusted.stored();
  for (const char* name : attack.proved) {
    EXPECT_NE(before[name], after[name]) << name;
    before[name] = after[name];
  }
  EXPECT_EQ(before, after);
}

TEST(Refresh, WithstandsSignedAttacks) {
  const std::vector<const char*> timestamp = {"timestamp.json"};
  const std::vector<const char*> both = {"timestamp.json", "snapshot.json"};
  int row = 0;
  for (const Attack& attack : std::vector<Attack>{
           {"rollback", {}, [](Repository& r) { r.timestamp["version"] = 1; }},
           {"rollback", {}, [](Repository& r) { r.snapshot["version"] = 1; }},
           {"rollback", timestamp, [](Repository& r) { r.targets["version"] = 1; }},
           {"rollback", timestamp, [](Repository& r) { r.delegated.clear(); }},
           {"expired_metadata", {}, [](Repository& r) { r.timestamp["expires"] = kNow; }},
           {"expired_metadata", timestamp, [](Repository& r) { r.snapshot["expires"] = kNow; }},
           {"expired_metadata", both, [](Repository& r) { r.targets["expires"] = kNow; }},
           {"metadata_type", {}, [](Repository& r) { r.timestamp["_type"] = "snapshot"; }},
           {"signature_threshold", {}, [](Repository& r) { r.signers["timestamp"] = {"x"}; }},
           {"signature_threshold", timestamp, [](Repository& r) { r.signers["snapshot"] = {}; }},
           {"signature_threshold", both, [](Repository& r) { r.signers["targets"] = {"root"}; }}}) {
    SCOPED_TRACE(row++);
    expect_withstands(attack, true);
  }
}

TEST(Refresh, WithstandsOtherBytesAndRoots) {
  const std::vector<const char*> timestamp = {"timestamp.json"};
  int row = 0;
  for (const Attack& attack : std::vector<Attack>{
           {"hash_mismatch", timestamp,
            [](Repository& r) { r.files["3.snapshot.json"].body.back() = ' '; }},
           {"length_mismatch", timestamp,
            [](Repository& r) { r.files["3.snapshot.json"].body.pop_back(); }},
           {"size_limit", timestamp, [](Repository& r) { r.files["3.snapshot.json"].body += ' '; }},
           {"size_limit",
            {},
            [](Repository& r) { r.files["timestamp.json"].body.append(20000, ' '); }},
           {"version_mismatch", timestamp,
            [](Repository& r) {
              r.pins = false;
              r.publish();
              r.files["3.snapshot.json"] = r.files["2.snapshot.json"];
            }},
           {"http_status", {}, [](Repository& r) { r.files.erase("timestamp.json"); }},
           {"http_status",
            {},
            [](Repository& r) {
              r.files["2.root.json"] = {500, ""};
            }},
           {"signature_threshold",
            {},
            [](Repository& r) {
              r.set_keys("root", {"root-new"});
              r.publish_root();
            }},
           {"signature_threshold",
            {},
            [](Repository& r) {
              r.set_keys("root", {"root-new"});
              r.signers["root"] = {"root"};
              r.publish_root();
            }},
           {"rollback", {}, [](Repository& r) {
              r.root["version"] = 2;
              r.publish_root();
              r.files["2.root.json"] = r.files["3.root.json"];
            }}}) {
    SCOPED_TRACE(row++);
    expect_withstands(attack, false);
  }
}

TEST(Refresh, PreservesDamagedStoredMetadata) {
  for (const char* name : {"timestamp.json", "snapshot.json"}) {
    TrustedClient trusted;
    ASSERT_EQ(trusted.refresh_code(), "");
    std::ofstream(trusted.trust / name) << "{";
    trusted.repository.publish_update();
    const auto before = trusted.stored();
    EXPECT_EQ(trusted.refresh_code(), "invalid_trusted_metadata");
    EXPECT_EQ(trusted.stored(), before);
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
  repository.set_keys("timestamp", {"timestamp-new"});
  repository.set_keys("snapshot", {"snapshot-new"});
  repository.timestamp["version"] = repository.snapshot["version"] = 3;
  repository.publish_root();
  repository.publish();
  const int rounds = strike_each_call(
      Fault::cut, EIO,
      [&] {
        trusted.client.reset();
        std::filesystem::remove_all(trusted.trust);
        std::filesystem::copy(saved, trusted.trust);
      },
      [&] { trusted.reopen().refresh(); },
      [&](const Stop& stop) {
        EXPECT_EQ(code_of([&] { trusted.reopen().target("x"); }), "target_not_found") << stop.nth;
        const auto stored = trusted.stored();
        EXPECT_FALSE(stored.contains("root-invalidation.json")) << stop.nth;
        EXPECT_EQ(stored.at("snapshot.json"), repository.files.at("3.snapshot.json").body);
      });
  EXPECT_GT(rounds, 20);
}

TEST(Refresh, KeepsTheStoredTimestampOfAnEqualVersion) {
  TrustedClient trusted;
  ASSERT_EQ(trusted.refresh_code(), "");
  trusted.repository.set_keys("targets", {"targets-new"});  // no rotation of online keys
  trusted.repository.root["expires"] = "9999-12-31T23:59:59Z";
  trusted.repository.publish_root();
  trusted.repository.files["timestamp.json"].body += '\n';
  const std::string before = trusted.stored().at("timestamp.json");
  trusted.now = parse_tuf_time("2040-01-01T00:00:00Z");
  EXPECT_EQ(trusted.refresh_code(), "") << "its expiry is left to the next look-up";
  EXPECT_EQ(trusted.stored().at("timestamp.json"), before);
  EXPECT_EQ(failure_of([&] { trusted.client->target("x"); }),
            "expired_metadata: Repository metadata has expired; previously installed games remain "
            "playable");
}

TEST(Refresh, ReplacesACachedRoleThatHasExpired) {
  TrustedClient trusted;
  trusted.repository.pins = false;
  trusted.repository.targets["expires"] = "2030-06-01T00:00:00Z";
  trusted.repository.publish();
  ASSERT_EQ(trusted.refresh_code(), "");
  trusted.now += std::chrono::hours(24 * 365);
  trusted.repository.targets["expires"] = "2040-01-01T00:00:00Z";
  trusted.repository.publish();
  EXPECT_EQ(code_of([&] { trusted.reopen().target("x"); }), "target_not_found");
  EXPECT_EQ(trusted.stored().at("targets.json"),
            trusted.repository.files.at("1.targets.json").body);
}

}  // namespace
}  // namespace tavro
