#include <gtest/gtest.h>

#include <algorithm>

#include "domain/crypto.h"
#include "support/failure.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

/// Delegations by name, each with the paths and their content as the role itself describes them.
struct Lookup : TrustedClient {
  json& role(json& delegator, const std::string& name, bool terminating = false) {
    return repository.delegate(delegator, name, {{"paths", {"a/*"}}}, terminating);
  }

  bool asked_for(const std::string& name) const {
    return std::ranges::any_of(repository.requests, [&](const std::string& request) {
      return request.ends_with("." + name + ".json");
    });
  }

  /// What the repository signs for the path, as the content it was made from, or the code.
  std::string answer(const std::string& path, std::initializer_list<const char*> contents = {}) {
    repository.publish_update();
    try {
      const json found = reopen().target(path);
      for (const char* content : contents)
        if (found.at("hashes").at("sha256") == digest(content, "sha256")) return content;
      return "another content";
    } catch (const Error& error) {
      return error.code;
    }
  }
};

TEST(Lookup, PrefersTheNearestRoleInOrder) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first");
  json& second = lookup.role(repository.targets, "second");
  json& third = lookup.role(repository.targets, "third");
  repository.add_target(second, "a/x", "second");
  repository.add_target(third, "a/x", "third");
  EXPECT_EQ(lookup.answer("a/x", {"second", "third"}), "second");
  repository.add_target(repository.targets, "a/x", "top");
  EXPECT_EQ(lookup.answer("a/x", {"top"}), "top");
  EXPECT_FALSE(lookup.asked_for("first")) << "a role's own target needs no delegation";
  EXPECT_EQ(lookup.answer("b"), "target_not_found");
}

TEST(Lookup, EndsAtATerminatingDelegation) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first", true);
  repository.add_target(lookup.role(repository.targets, "second"), "a/x", "second");
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found");
  EXPECT_FALSE(lookup.asked_for("second"));
  // One that does not select the path ends nothing.
  repository.targets["delegations"]["roles"][0]["paths"] = {"b/*"};
  EXPECT_EQ(lookup.answer("a/x", {"second"}), "second");
}

TEST(Lookup, OpensEachRoleOnceAndHonoursItsTermination) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first");
  lookup.role(repository.delegated.at("first"), "second");
  lookup.role(repository.delegated.at("second"), "first");
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found");
  EXPECT_EQ(repository.requests.size(), 6u);

  Lookup again;
  again.role(again.repository.targets, "first");
  again.role(again.repository.delegated.at("first"), "shared");
  again.role(again.repository.targets, "shared", true);
  json& last = again.role(again.repository.targets, "last");
  again.repository.add_target(last, "a/x", "last");
  EXPECT_EQ(again.answer("a/x", {"last"}), "target_not_found");
}

TEST(Lookup, SelectsByHashPrefixAndStoresRolesUnderTheirDigest) {
  Lookup lookup;
  const std::string hash = digest("x", "sha256"), name = "group/\xc3\xa9";
  json& role = lookup.repository.delegate(lookup.repository.targets, name,
                                          {{"path_hash_prefixes", {"0F", hash.substr(0, 5)}}});
  lookup.repository.add_target(role, "x", "content");
  EXPECT_EQ(lookup.answer("x"), "invalid_metadata");
  lookup.repository.targets["delegations"]["roles"][0]["path_hash_prefixes"][0] = "0";
  EXPECT_EQ(lookup.answer("x", {"content"}), "content");
  EXPECT_EQ(lookup.answer("y"), "target_not_found");
  EXPECT_TRUE(lookup.stored().contains("delegated-" + digest(name, "sha256") + ".json"));
}

TEST(Lookup, IsBoundedAndNeverAnswersPastABrokenRole) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  repository.add_target(repository.targets, "own", "own");
  json& first = lookup.role(repository.targets, "first");
  repository.add_target(lookup.role(repository.targets, "second"), "a/x", "second");
  lookup.limits.delegated_roles = 2;
  EXPECT_EQ(lookup.answer("a/x"), "delegation_limit");
  lookup.limits.delegated_roles = 1;
  EXPECT_EQ(lookup.answer("own", {"own"}), "own");
  lookup.limits.delegated_roles = 0;
  EXPECT_EQ(lookup.answer("own"), "delegation_limit");

  lookup.limits.delegated_roles = 8;
  EXPECT_EQ(lookup.answer("a/x", {"second"}), "second");
  first["expires"] = "2029-01-01T00:00:00Z";
  EXPECT_EQ(lookup.answer("a/x"), "expired_metadata");
  EXPECT_EQ(lookup.answer("own", {"own"}), "own");
}

TEST(Lookup, NeedsTheRoleInTheSnapshotOnlyWhenItSelects) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first");
  repository.delegated.clear();
  EXPECT_EQ(lookup.answer("a/x"), "missing_role");
  EXPECT_EQ(lookup.answer("b"), "target_not_found");
}

TEST(Lookup, RefusesAnUnsafePathBeforeAnyRequest) {
  Lookup lookup;
  EXPECT_EQ(lookup.answer("../x"), "unsafe_path");
  EXPECT_TRUE(lookup.repository.requests.empty());
}

}  // namespace
}  // namespace tavro
