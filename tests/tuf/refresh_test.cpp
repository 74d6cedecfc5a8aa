#include <gtest/gtest.h>

#include <functional>

#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

using Requests = std::vector<std::string>;

std::string refresh_code(TrustedClient& trusted) {
  return code_of([&] { trusted.reopen().refresh(); });
}

TEST(Refresh, StoresVerbatimAndAsksForNothingTwice) {
  for (const bool consistent : {true, false}) {
    TrustedClient trusted;
    trusted.repository.root["consistent_snapshot"] = consistent;
    trusted.repository.publish_root();
    trusted.repository.publish();
    const std::string prefix = consistent ? "1." : "";
    EXPECT_EQ(refresh_code(trusted), "");
    EXPECT_EQ(trusted.repository.requests,
              (Requests{"2.root.json", "3.root.json", "timestamp.json", prefix + "snapshot.json",
                        prefix + "targets.json"}));
    for (const auto& [name, bytes] : trusted.stored()) {
      const std::string remote = name == "root.json"        ? "2.root.json"
                                 : name == "timestamp.json" ? name
                                                            : prefix + name;
      EXPECT_EQ(bytes, trusted.repository.files.at(remote).body) << name;
    }
    EXPECT_EQ(trusted.stored().size(), 4u);
    EXPECT_EQ(refresh_code(trusted), "");
    EXPECT_EQ(trusted.repository.requests, (Requests{"3.root.json", "timestamp.json"}));
  }
}

struct Attack {
  const char* name;
  const char* code;
  std::function<void(TrustedClient&)> prepare;
};

/// Each is served to a client that has refreshed once, at versions 2; all stored metadata must
/// stay as it was, apart from a timestamp that was proved before its snapshot failed.
const Attack kAttacks[] = {
    {"timestamp_rollback", "rollback",
     [](auto& t) {
       t.repository.timestamp["version"] = 1;
       t.repository.publish();
     }},
    {"snapshot_rollback", "rollback",
     [](auto& t) {
       t.repository.timestamp["version"] = 3;
       t.repository.snapshot["version"] = 1;
       t.repository.publish();
     }},
    {"targets_rollback", "rollback",
     [](auto& t) {
       t.repository.publish_update();
       t.repository.targets["version"] = 1;
       t.repository.publish();
     }},
    {"role_disappears", "rollback",
     [](auto& t) {
       t.repository.delegated.clear();
       t.repository.publish_update();
     }},
    {"mixed_versions", "version_mismatch",
     [](auto& t) {
       t.repository.pins = false;
       t.repository.publish_update();
       t.repository.files["3.snapshot.json"] = t.repository.files["2.snapshot.json"];
     }},
    {"snapshot_bytes", "hash_mismatch",
     [](auto& t) {
       t.repository.publish_update();
       t.repository.files["3.snapshot.json"].body.back() = ' ';
     }},
    {"snapshot_length", "length_mismatch",
     [](auto& t) {
       t.repository.publish_update();
       t.repository.files["3.snapshot.json"].body.pop_back();
     }},
    {"endless_snapshot", "size_limit",
     [](auto& t) {
       t.repository.publish_update();
       t.repository.files["3.snapshot.json"].body += ' ';
     }},
    {"endless_timestamp", "size_limit",
     [](auto& t) { t.repository.files["timestamp.json"].body.append(20000, ' '); }},
    {"freeze", "expired_metadata",
     [](auto& t) {
       t.repository.timestamp["expires"] = "2030-01-01T00:00:00Z";
       t.repository.publish_update();
     }},
    {"expired_snapshot", "expired_metadata",
     [](auto& t) {
       t.repository.snapshot["expires"] = "2029-12-31T23:59:59Z";
       t.repository.publish_update();
     }},
    {"expired_targets", "expired_metadata",
     [](auto& t) {
       t.repository.targets["expires"] = "2029-12-31T23:59:59Z";
       t.repository.publish_update();
     }},
    {"wrong_timestamp_key", "signature_threshold",
     [](auto& t) {
       t.repository.signers["timestamp"] = {"snapshot"};
       t.repository.publish_update();
     }},
    {"wrong_targets_key", "signature_threshold",
     [](auto& t) {
       t.repository.signers["targets"] = {"timestamp"};
       t.repository.publish_update();
     }},
    {"root_by_new_keys_only", "signature_threshold",
     [](auto& t) {
       t.repository.set_keys("root", {"root-new"});
       t.repository.publish_root();
     }},
    {"root_by_old_keys_only", "signature_threshold",
     [](auto& t) {
       t.repository.set_keys("root", {"root-new"});
       t.repository.signers["root"] = {"root"};
       t.repository.publish_root();
     }},
    {"root_skips_one", "rollback",
     [](auto& t) {
       t.repository.root["version"] = 2;
       t.repository.publish_root();
       t.repository.files["2.root.json"] = t.repository.files["3.root.json"];
     }},
    {"root_status", "http_status",
     [](auto& t) {
       t.repository.files["2.root.json"] = {500, ""};
     }},
    {"timestamp_gone", "http_status", [](auto& t) { t.repository.files.erase("timestamp.json"); }},
    {"damaged_timestamp", "invalid_trusted_metadata",
     [](auto& t) { t.write("timestamp.json", "{"); }},
    {"damaged_snapshot", "invalid_trusted_metadata",
     [](auto& t) {
       t.write("snapshot.json", "{");
       t.repository.publish_update();
     }},
};

TEST(Refresh, WithstandsAttacks) {
  for (const Attack& attack : kAttacks) {
    TrustedClient trusted;
    trusted.repository.delegate(trusted.repository.targets, "fonts", {{"paths", {"fonts/*"}}});
    trusted.repository.publish_update();
    ASSERT_EQ(refresh_code(trusted), "");
    attack.prepare(trusted);
    auto before = trusted.stored();
    EXPECT_EQ(refresh_code(trusted), attack.code) << attack.name;
    auto after = trusted.stored();
    const bool accepted =
        trusted.repository.timestamp["version"] == 3 &&
        after["timestamp.json"] == trusted.repository.files["timestamp.json"].body;
    if (accepted) before["timestamp.json"] = after["timestamp.json"];
    if (std::string(attack.name).ends_with("_targets") ||
        std::string(attack.name) == "wrong_targets_key")
      before["snapshot.json"] = after["snapshot.json"];
    EXPECT_EQ(before, after) << attack.name;
  }
}

TEST(Refresh, WalksTheRootsBeforeItAsksForExpiry) {
  TrustedClient trusted;
  trusted.repository.root["expires"] = "2029-01-01T00:00:00Z";
  trusted.repository.publish_root();
  EXPECT_EQ(refresh_code(trusted), "expired_metadata");
  trusted.repository.root["expires"] = "2040-01-01T00:00:00Z";
  trusted.repository.set_keys("root", {"rsa-new", "root-new"}, 2);
  trusted.repository.signers["root"].push_back("root");
  for (int count = 0; count < 5; ++count) trusted.repository.publish_root();
  trusted.limits.root_rotations = 2;
  EXPECT_EQ(refresh_code(trusted), "");
  EXPECT_EQ(trusted.stored().at("root.json"), trusted.repository.files.at("4.root.json").body);
  trusted.limits.root_rotations = 0;
  EXPECT_EQ(refresh_code(trusted), "");
  EXPECT_EQ(trusted.repository.requests, Requests{"timestamp.json"});
}

TEST(Refresh, ForgetsWhatRotatedOnlineKeysSigned) {
  // Stolen online keys signed versions that nothing can follow; only a rotation helps.
  TrustedClient trusted;
  SignedRepository& repository = trusted.repository;
  repository.timestamp["version"] = repository.snapshot["version"] = 18446744073709551615u;
  repository.publish();
  ASSERT_EQ(refresh_code(trusted), "");
  trusted.client.reset();
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
        EXPECT_EQ(code_of([&] { trusted.reopen().target("x"); }), "target_not_found")
            << stop.call << " " << stop.nth;
        EXPECT_FALSE(trusted.stored().contains("root-invalidation.json"));
        EXPECT_EQ(trusted.stored().at("snapshot.json"),
                  repository.files.at("3.snapshot.json").body);
      });
  EXPECT_GT(rounds, 20);
}

TEST(Refresh, KeepsTheTimestampWhenOnlineKeysStay) {
  TrustedClient trusted;
  ASSERT_EQ(refresh_code(trusted), "");
  trusted.repository.set_keys("targets", {"targets-new"});
  trusted.repository.publish_root();
  trusted.repository.files["timestamp.json"].body += '\n';
  const std::string before = trusted.stored().at("timestamp.json");
  EXPECT_EQ(refresh_code(trusted), "");
  EXPECT_EQ(trusted.stored().at("timestamp.json"), before) << "equal versions: the stored one wins";
}

TEST(Refresh, ReplacesACachedRoleThatHasExpired) {
  TrustedClient trusted;
  trusted.repository.targets["expires"] = "2030-06-01T00:00:00Z";
  trusted.repository.pins = false;
  trusted.repository.publish();
  ASSERT_EQ(refresh_code(trusted), "");
  trusted.now += std::chrono::hours(24 * 365);
  trusted.repository.targets["expires"] = "2040-01-01T00:00:00Z";
  trusted.repository.publish();
  EXPECT_EQ(code_of([&] { trusted.reopen().target("x"); }), "target_not_found");
  EXPECT_EQ(trusted.stored().at("targets.json"),
            trusted.repository.files.at("1.targets.json").body);
}

TEST(Refresh, LeavesAnExpiredUnchangedTimestampToTheNextLookup) {
  TrustedClient trusted;
  ASSERT_EQ(refresh_code(trusted), "");
  trusted.now = parse_tuf_time("2040-01-01T00:00:00Z");
  trusted.repository.root["expires"] = "2041-01-01T00:00:00Z";
  trusted.repository.publish_root();
  trusted.reopen().refresh();
  EXPECT_EQ(failure_of([&] { trusted.client->target("x"); }),
            "expired_metadata: Repository metadata has expired; previously installed games remain "
            "playable");
}

}  // namespace
}  // namespace tavro
