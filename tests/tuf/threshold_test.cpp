#include "tuf/threshold.h"

#include "support/signed_repository.h"
#include "support/testing.h"

namespace tavro::threshold_test {

TEST(Threshold, CountsDifferentAuthorisedKeysOverTheCanonicalValue) {
  const auto &first = SignedRepository::key("first"), &second = SignedRepository::key("root");
  const json keys = {{first.id(), first.record()}, {second.id(), second.record()}};
  const json document = SignedRepository::sign({{"version", 1}}, {"first", "root"});
  const auto code = [&](const json& signed_document, const json& ids, unsigned threshold) {
    const json authority = {{"keyids", ids}, {"threshold", threshold}};
    return code_of([&] { verify_threshold(signed_document, keys, authority); });
  };
  const json both = {first.id(), second.id()};
  json garbage = document, repeated = document, changed = document;
  garbage["signatures"][1]["sig"] = "00";
  repeated["signatures"][1] = repeated["signatures"][0];
  changed["signed"]["version"] = 2;
  EXPECT_EQ(code(document, both, 2), "");
  EXPECT_EQ(code(garbage, both, 2), "signature_threshold");
  EXPECT_EQ(code(garbage, both, 1), "");
  EXPECT_EQ(code(garbage, {second.id()}, 1), "signature_threshold");
  EXPECT_EQ(code(repeated, both, 2), "signature_threshold");
  EXPECT_EQ(code(changed, both, 1), "signature_threshold");
  EXPECT_EQ(code(document, {first.id(), first.id()}, 2), "invalid_threshold");
  EXPECT_EQ(code(document, both, 0), "invalid_version");
}

TEST(Threshold, BoundsAndIdentifiesKeys) {
  for (const auto& [size, code] : {std::pair(16384u, ""), std::pair(16385u, "size_limit")}) {
    json key = {
        {"keytype", "x"}, {"scheme", "x"}, {"keyval", {{"public", std::string(size, 'k')}}}};
    const std::string id = digest(canonical_json(key), "sha256");
    EXPECT_EQ(code_of([&] { verify_keys({{id, key}}); }), code) << size;
    key["comment"] = "";
    EXPECT_EQ(code_of([&] { verify_keys({{id, key}}); }), "keyid_mismatch");
  }
}

TEST(TargetFile, MustBeTheSignedBytes) {
  const TempFolder folder;
  std::ofstream(folder.path() / "target") << "content";
  std::filesystem::create_symlink("target", folder.path() / "link");
  const auto code = [&](const char* name, unsigned size, const json& hashes) {
    const json description = {{"length", size}, {"hashes", hashes}};
    return code_of([&] { verify_target_file(folder.path() / name, description, {}); });
  };
  const std::string sha256 = digest("content", "sha256"), sha512 = digest("content", "sha512");
  EXPECT_EQ(code("target", 7, {{"sha256", sha256}, {"sha512", sha512}}), "");
  EXPECT_EQ(code("target", 7, {{"sha256", sha256}, {"sha512", sha256}}), "hash_mismatch");
  EXPECT_EQ(code("target", 8, {{"sha256", sha256}}), "length_mismatch");
  EXPECT_EQ(code("target", 7, json::object()), "invalid_hashes");
  for (const char* other : {"link", "absent", "."})
    EXPECT_EQ(code(other, 7, {{"sha256", sha256}}), "unsafe_path") << other;
}

TEST(PathPattern, MatchesTheWholePath) {
  using Pairs = std::vector<std::pair<const char*, const char*>>;
  const Pairs matching = {{"", ""},         {"*", ""},        {"a/*.t", "a/b.t"}, {"*a*b", "xaxab"},
                          {"a?c", "abc"},   {"[a-c]", "b"},   {"[a-]", "-"},      {"[-a]", "-"},
                          {"[!x]", "y"},    {"[]]", "]"},     {"[]", "[]"},       {"[!]", "a"},
                          {"[!]]", "a]"},   {"[abc", "[abc"}, {"x[", "x["},       {"\\*", "\\ab"},
                          {"[\x80-a]", "Z"}};
  const Pairs different = {{"", "a"},      {"*", "a/b"},   {"a/*.t", "a/b/c.t"}, {"*a*b", "xbxa"},
                           {"A", "a"},     {"a?c", "a/c"}, {"a?c", "ac"},        {"[a-c]", "d"},
                           {"[c-a]", "b"}, {"[a-]", "b"},  {"[^x]", "x"},        {"[!x]", "/"},
                           {"[/]", "/"},   {"\\?", "?"},   {"[a-\xff]", "z"}};
  for (const auto& [pattern, path] : matching)
    EXPECT_TRUE(path_pattern_matches(pattern, path)) << pattern << " and " << path;
  for (const auto& [pattern, path] : different)
    EXPECT_FALSE(path_pattern_matches(pattern, path)) << pattern << " and " << path;
}

TEST(PathPattern, HasBoundsAndNoExplosion) {
  const std::string longest(4096, 'a');
  EXPECT_EQ(code_of([&] { path_pattern_matches(longest + "a", "a"); }), "size_limit");
  EXPECT_EQ(code_of([&] { path_pattern_matches("a", longest + "a"); }), "size_limit");
  std::string stars;
  while (stars.size() < 4094) stars += "*a";
  // A matcher that backtracks would not come back from this one.
  EXPECT_FALSE(path_pattern_matches(stars + "b", longest));
}

}  // namespace tavro::threshold_test
