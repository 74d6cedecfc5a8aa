#include "tuf/threshold.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "domain/crypto.h"
#include "support/failure.h"
#include "support/signed_repository.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

TEST(Threshold, CountsDifferentAuthorisedKeysOverTheCanonicalValue) {
  const std::string first = SignedRepository::key_id("first"),
                    second = SignedRepository::key_id("targets");
  const json keys = {{first, SignedRepository::key_record("first")},
                     {second, SignedRepository::key_record("targets")}};
  const json document = SignedRepository::sign({{"version", 1}}, {"first", "targets"});
  const json both = {{"keyids", {first, second}}, {"threshold", 2}};
  const json one = {{"keyids", {first, second}}, {"threshold", 1}};
  const auto code = [](const json& signed_document, const json& by, const json& authority) {
    return code_of([&] { verify_threshold(signed_document, by, authority); });
  };
  EXPECT_EQ(code(document, keys, both), "");
  json garbage = document, repeated = document, changed = document;
  garbage["signatures"][1]["sig"] = "00";
  repeated["signatures"][1] = repeated["signatures"][0];
  changed["signed"]["version"] = 2;
  EXPECT_EQ(code(garbage, keys, both), "signature_threshold");
  EXPECT_EQ(code(garbage, keys, one), "");
  EXPECT_EQ(code(garbage, keys, {{"keyids", {second}}, {"threshold", 1}}), "signature_threshold");
  EXPECT_EQ(code(repeated, keys, both), "signature_threshold");
  EXPECT_EQ(code(changed, keys, one), "signature_threshold");
  EXPECT_EQ(code(document, keys, {{"keyids", {first, first}}, {"threshold", 2}}),
            "invalid_threshold");
  EXPECT_EQ(code(document, keys, {{"keyids", {first}}, {"threshold", 0}}), "invalid_version");
  EXPECT_EQ(code(document, keys, {{"threshold", 1}}), "invalid_metadata");
  json exchanged = keys, extended = keys;
  std::swap(exchanged[first], exchanged[second]);
  extended[first]["comment"] = "";
  EXPECT_EQ(code(document, exchanged, one), "keyid_mismatch");
  EXPECT_EQ(code(document, extended, one), "keyid_mismatch");
}

TEST(Threshold, BoundsKeys) {
  for (const auto& [size, code] : {std::pair(16384u, ""), std::pair(16385u, "size_limit")}) {
    const json key = {
        {"keytype", "x"}, {"scheme", "x"}, {"keyval", {{"public", std::string(size, 'k')}}}};
    const json keys = {{digest(canonical_json(key), "sha256"), key}};
    EXPECT_EQ(code_of([&] { verify_keys(keys); }), code) << size;
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

}  // namespace
}  // namespace tavro
