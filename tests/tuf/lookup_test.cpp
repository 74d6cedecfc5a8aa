#include <gtest/gtest.h>

#include <algorithm>

#include "domain/crypto.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

struct Lookup : TrustedClient {
  json& role(json& delegator, const std::string& name, bool terminating = false) {
    return repository.delegate(delegator, name, {{"paths", {"a/*"}}}, terminating);
  }
  bool asked_for(const std::string& name) const {
    return std::ranges::any_of(repository.requests,
                               [&](const auto& asked) { return asked.ends_with(name + ".json"); });
  }
  /// The content that the repository signs for the path, told by its length, or a code.
  std::string answer(const std::string& path) {
    repository.publish_update();
    unsigned size = 0;
    const std::string code = code_of([&] { size = reopen().target(path).at("length"); });
    return code.empty() ? std::string(size, 'x') : code;
  }
};

TEST(Lookup, TakesTheFirstRoleInOrderThatListsThePath) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first");
  repository.add_target(lookup.role(repository.targets, "second"), "a/x", "xx");
  repository.add_target(lookup.role(repository.targets, "third"), "a/x", "xxx");
  EXPECT_EQ(lookup.answer("a/x"), "xx");
  EXPECT_FALSE(lookup.asked_for("third"));
  EXPECT_EQ(lookup.answer("b"), "target_not_found");
  EXPECT_FALSE(lookup.asked_for("first"));
  repository.add_target(repository.targets, "a/x", "x");
  EXPECT_EQ(lookup.answer("a/x"), "x");
  EXPECT_FALSE(lookup.asked_for("first"));
  repository.targets["targets"].clear();
  repository.targets["delegations"]["roles"][0]["terminating"] = true;
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found");
  EXPECT_FALSE(lookup.asked_for("second"));
  repository.targets["delegations"]["roles"][0]["paths"] = {"b/*"};
  EXPECT_EQ(lookup.answer("a/x"), "xx") << "what does not select the path ends nothing";
}

TEST(Lookup, OpensEachRoleOnceAndHonoursItsTermination) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first");
  lookup.role(repository.delegated.at("first"), "second");
  lookup.role(repository.delegated.at("second"), "first");
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found");
  EXPECT_EQ(repository.requests.size(), 6u);
  lookup.role(repository.targets, "second", true);
  repository.add_target(lookup.role(repository.targets, "last"), "a/x", "last");
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found");
}

TEST(Lookup, SelectsByHashPrefixAndStoresRolesUnderTheirDigest) {
  Lookup lookup;
  const std::string hash = digest("x", "sha256"), name = "group/\xc3\xa9";
  json& role = lookup.repository.delegate(lookup.repository.targets, name,
                                          {{"path_hash_prefixes", {"0", hash.substr(0, 5)}}});
  lookup.repository.add_target(role, "x", "content");
  EXPECT_EQ(lookup.answer("x"), "xxxxxxx");
  EXPECT_EQ(lookup.answer("y"), "target_not_found");
  EXPECT_TRUE(lookup.stored().contains("delegated-" + digest(name, "sha256") + ".json"));
}

TEST(Lookup, IsBoundedAndNeverAnswersPastABrokenRole) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  repository.add_target(repository.targets, "own", "x");
  json& first = lookup.role(repository.targets, "first");
  repository.add_target(lookup.role(repository.targets, "second"), "a/x", "xx");
  lookup.limits.delegated_roles = 2;
  EXPECT_EQ(lookup.answer("a/x"), "delegation_limit");
  lookup.limits.delegated_roles = 3;
  EXPECT_EQ(lookup.answer("a/x"), "xx");
  first["expires"] = kNow;
  EXPECT_EQ(lookup.answer("a/x"), "expired_metadata");
  lookup.limits.delegated_roles = 1;
  EXPECT_EQ(lookup.answer("own"), "x");
  lookup.limits.delegated_roles = 0;
  EXPECT_EQ(lookup.answer("own"), "delegation_limit");
}

TEST(Lookup, FailsInWordsForAMissingRoleAndAnUnsafePath) {
  Lookup lookup;
  lookup.role(lookup.repository.targets, "first");
  lookup.repository.delegated.clear();
  EXPECT_EQ(lookup.answer("a/x"), "missing_role");
  EXPECT_EQ(lookup.answer("b"), "target_not_found");
  EXPECT_EQ(lookup.answer("../x"), "unsafe_path");
  EXPECT_TRUE(lookup.repository.requests.empty());
}

}  // namespace
}  // namespace tavro
