#include "tuf/trusted_client.h"

namespace tavro::lookup_test {

struct Lookup : TrustedClient {
  json& role(json& delegator, const std::string& name, bool terminating = false) {
    return repository.delegate(delegator, name, {{"paths", {"a/*"}}}, terminating);
  }
  /// The length that the repository signs for the path, or a code; then the roles asked for.
  std::string answer(const std::string& path) {
    std::string result;
    repository.publish_update();
    result = code_of([&] { result = reopen().target(path).at("length").dump(); }) + result;
    for (std::size_t i = 4; i < repository.requests.size(); ++i)
      result += " " + repository.requests[i].substr(repository.requests[i].find('.') + 1);
    return result;
  }
};

TEST(Lookup, TakesTheFirstRoleInOrderThatListsThePath) {
  Lookup lookup;
  json& targets = lookup.repository.targets;
  lookup.role(targets, "first");
  lookup.repository.add_target(lookup.role(targets, "second"), "a/x", "xx");
  lookup.repository.add_target(lookup.role(targets, "third"), "a/x", "xxx");
  EXPECT_EQ(lookup.answer("a/x"), "2 first.json second.json");
  EXPECT_EQ(lookup.answer("b"), "target_not_found");
  lookup.repository.add_target(targets, "a/x", "x");
  EXPECT_EQ(lookup.answer("a/x"), "1");
  targets["targets"].clear();
  targets["delegations"]["roles"][0]["terminating"] = true;
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found");
  targets["delegations"]["roles"][0]["paths"] = {"b/*"};
  EXPECT_EQ(lookup.answer("a/x"), "2") << "what does not select the path ends nothing";
}

TEST(Lookup, OpensEachRoleOnceAndHonoursItsTermination) {
  Lookup lookup;
  SignedRepository& repository = lookup.repository;
  lookup.role(repository.targets, "first");
  lookup.role(repository.delegated.at("first"), "second");
  lookup.role(repository.delegated.at("second"), "first");
  EXPECT_EQ(lookup.answer("a/x"), "target_not_found first.json second.json");
  lookup.role(repository.targets, "second", true);
  repository.add_target(lookup.role(repository.targets, "last"), "a/x", "last");
  EXPECT_EQ(lookup.answer("a/x").substr(0, 16), "target_not_found");
}

TEST(Lookup, SelectsByHashPrefixAndStoresRolesUnderTheirDigest) {
  Lookup lookup;
  const std::string hash = digest("x", "sha256"), name = "group/\xc3\xa9";
  json& role = lookup.repository.delegate(lookup.repository.targets, name,
                                          {{"path_hash_prefixes", {"0", hash.substr(0, 5)}}});
  lookup.repository.add_target(role, "x", "content");
  EXPECT_EQ(lookup.answer("x"), "7 " + name + ".json");
  EXPECT_EQ(lookup.answer("y"), "target_not_found");
  EXPECT_TRUE(lookup.stored().contains("delegated-" + digest(name, "sha256") + ".json"));
}

TEST(Lookup, IsBoundedAndNeverAnswersPastABrokenRole) {
  Lookup lookup;
  json& targets = lookup.repository.targets;
  json& first = lookup.role(targets, "first");
  lookup.repository.add_target(lookup.role(targets, "second"), "a/x", "xx");
  lookup.limits.delegated_roles = 2;
  EXPECT_EQ(lookup.answer("a/x"), "delegation_limit first.json");
  lookup.limits.delegated_roles = 3;
  EXPECT_EQ(lookup.answer("a/x"), "2 second.json");
  first["expires"] = kNow;
  EXPECT_EQ(lookup.answer("a/x"), "expired_metadata first.json");
  EXPECT_EQ(lookup.answer("../x"), "unsafe_path");
  EXPECT_TRUE(lookup.repository.requests.empty());
}

}  // namespace tavro::lookup_test
