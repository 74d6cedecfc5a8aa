#include "tuf/threshold.h"

#include "support/signed_repository.h"
#include "support/testing.h"

namespace tavro::threshold_test {

TEST(Threshold, CountsEachAuthorisedKeyOnce) {
  const std::string first = SignedRepository::key("first").id();
  const std::string second = SignedRepository::key("root").id();
  const json keys = {{first, SignedRepository::key("first").record()},
                     {second, SignedRepository::key("root").record()}};
  json document = SignedRepository::sign({{"version", 1}}, {"first", "root"});
  const auto code = [&](const json& ids, unsigned threshold) {
    const json authority = {{"keyids", ids}, {"threshold", threshold}};
    return code_of([&] { verify_threshold(document, keys, authority); });
  };
  EXPECT_EQ(code({first, second}, 2), "");
  EXPECT_EQ(code({first, first}, 2), "invalid_threshold");
  document["signatures"][1] = document["signatures"][0];
  EXPECT_EQ(code({first, second}, 2), "signature_threshold");
  document["signatures"][1] = {{"keyid", second}, {"sig", "00"}};
  EXPECT_EQ(code({first, second}, 2), "signature_threshold");
  EXPECT_EQ(code({first, second}, 1), "") << "a bad signature beside enough good ones";
}

TEST(Threshold, BoundsKeys) {
  for (const auto& [size, code] : {std::pair(16384u, ""), std::pair(16385u, "size_limit")}) {
    const json key = {
        {"keytype", "x"}, {"scheme", "x"}, {"keyval", {{"public", std::string(size, 'k')}}}};
    const std::string id = digest(canonical_json(key), "sha256");
    EXPECT_EQ(code_of([&] { verify_keys({{id, key}}); }), code) << size;
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
  EXPECT_EQ(code("link", 7, {{"sha256", sha256}}), "unsafe_path");
}

TEST(PathPattern, MatchesTheWholePath) {
  using Pairs = std::vector<std::pair<const char*, const char*>>;
  const Pairs matching = {{"*", ""},      {"a/*.t", "a/b.t"}, {"*a*b", "xaxab"}, {"a?c", "abc"},
                          {"[a-c]", "b"}, {"[a-]", "-"},      {"[-a]", "-"},     {"[!x]", "y"},
                          {"[]]", "]"},   {"[!]]", "a]"},     {"x[", "x["},      {"\\*", "\\ab"},
                          {"[]", "[]"},   {"[\x80-a]", "Z"}};
  const Pairs different = {{"*", "a/b"},  {"*a*b", "xbxa"}, {"A", "a"},    {"a?c", "a/c"},
                           {"a?c", "ac"}, {"[a-c]", "d"},   {"[^x]", "x"}, {"[!x]", "/"},
                           {"[/]", "/"},  {"\\?", "?"},     {"", "a"},     {"[a-\xff]", "z"}};
  for (const auto& [pattern, path] : matching)
    EXPECT_TRUE(path_pattern_matches(pattern, path)) << pattern << " and " << path;
  for (const auto& [pattern, path] : different)
    EXPECT_FALSE(path_pattern_matches(pattern, path)) << pattern << " and " << path;
}

TEST(PathPattern, HasBoundsAndNoExplosion) {
  const std::string longest(4096, 'a');
  EXPECT_EQ(code_of([&] { path_pattern_matches("a", longest + "a"); }), "size_limit");
  std::string stars;
  while (stars.size() < 4094) stars += "*a";
  // A matcher that backtracks would not come back from this one.
  EXPECT_FALSE(path_pattern_matches(stars + "b", longest));
}

}  // namespace tavro::threshold_test
