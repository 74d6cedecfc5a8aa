#include "tuf/threshold.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cctype>
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

/// A small document, signed by an Ed25519 and a P-256 key, and an authority over both.
struct Signed {
  std::string first = SignedRepository::key_id("first");
  std::string second = SignedRepository::key_id("targets");
  json keys = {{first, SignedRepository::key_record("first")},
               {second, SignedRepository::key_record("targets")}};
  json authority = {{"keyids", {first, second}}, {"threshold", 2}};
  json document = SignedRepository::sign({{"version", 1}}, {"first", "targets"});

  std::string code() const {
    return code_of([&] { verify_threshold(document, keys, authority); });
  }
};

TEST(Threshold, CountsDifferentAuthorisedKeys) {
  Signed garbage;
  EXPECT_EQ(garbage.code(), "");
  garbage.document["signatures"][1]["sig"] = "00";
  EXPECT_EQ(garbage.code(), "signature_threshold");
  garbage.authority["threshold"] = 1;
  EXPECT_EQ(garbage.code(), "");
  garbage.authority["keyids"] = {garbage.second};  // the key that did sign has no authority
  EXPECT_EQ(garbage.code(), "signature_threshold");

  Signed repeated;
  repeated.document["signatures"][1] = repeated.document["signatures"][0];
  EXPECT_EQ(repeated.code(), "signature_threshold");
  Signed changed;
  changed.document["signed"]["version"] = 2;
  EXPECT_EQ(changed.code(), "signature_threshold");
}

TEST(Threshold, ProvesAuthorityBeforeAnySignature) {
  Signed repeated;
  repeated.authority["keyids"] = {repeated.first, repeated.first};
  EXPECT_EQ(repeated.code(), "invalid_threshold");
  Signed zero;
  zero.authority["threshold"] = 0;
  EXPECT_EQ(zero.code(), "invalid_version");
  Signed missing;
  missing.authority.erase("keyids");
  EXPECT_EQ(missing.code(), "invalid_metadata");
  Signed exchanged;
  std::swap(exchanged.keys[exchanged.first], exchanged.keys[exchanged.second]);
  EXPECT_EQ(exchanged.code(), "keyid_mismatch");
  Signed extended;
  extended.keys[extended.first]["comment"] = "";
  EXPECT_EQ(extended.code(), "keyid_mismatch");
}

TEST(Threshold, BoundsKeys) {
  for (const auto& [size, code] : {std::pair(16384, ""), std::pair(16385, "size_limit")}) {
    const json key = {{"keytype", "unknown"},
                      {"scheme", "unknown"},
                      {"keyval", {{"public", std::string(static_cast<std::size_t>(size), 'k')}}}};
    const json keys = {{digest(canonical_json(key), "sha256"), key}};
    EXPECT_EQ(code_of([&] { verify_keys(keys); }), code) << size;
  }
}

TEST(TargetFile, MustBeTheSignedBytes) {
  const TempFolder folder;
  const auto file = folder.path() / "target";
  std::ofstream(file) << "content";
  std::filesystem::create_symlink(file, folder.path() / "link");
  const auto code = [&](const char* name, unsigned size, const json& hashes) {
    const json description = {{"length", size}, {"hashes", hashes}};
    return code_of([&] { verify_target_file(folder.path() / name, description, {}); });
  };
  const std::string sha256 = digest("content", "sha256"), sha512 = digest("content", "sha512");
  std::string upper = sha256;
  for (char& byte : upper) byte = static_cast<char>(std::toupper(byte));

  EXPECT_EQ(code("target", 7, {{"sha256", sha256}, {"sha512", sha512}}), "");
  EXPECT_EQ(code("target", 7, {{"sha256", sha256}, {"sha512", sha256}}), "hash_mismatch");
  EXPECT_EQ(code("target", 7, {{"sha256", upper}}), "hash_mismatch");
  EXPECT_EQ(code("target", 8, {{"sha256", sha256}}), "length_mismatch");
  EXPECT_EQ(code("target", 7, json::object()), "invalid_hashes");
  for (const char* other : {"link", "absent", "."})
    EXPECT_EQ(code(other, 7, {{"sha256", sha256}}), "unsafe_path") << other;
}

TEST(PathPattern, MatchesTheWholePath) {
  struct Row {
    const char *pattern, *path;
    bool matches;
  };
  for (const auto& [pattern, path, matches] : {
           Row{"", "", true},
           Row{"", "a", false},
           Row{"*", "", true},
           Row{"*", "a/b", false},
           Row{"a/*.t", "a/b.t", true},
           Row{"a/*.t", "a/b/c.t", false},
           Row{"*a*b", "xaxab", true},
           Row{"*a*b", "xbxa", false},
           Row{"A", "a", false},
           Row{"a?c", "abc", true},
           Row{"a?c", "a/c", false},
           Row{"a?c", "ac", false},
           Row{"[a-c]", "b", true},
           Row{"[a-c]", "d", false},
           Row{"[c-a]", "b", false},
           Row{"[a-]", "-", true},
           Row{"[-a]", "-", true},
           Row{"[a-]", "b", false},
           Row{"[!x]", "y", true},
           Row{"[^x]", "x", false},
           Row{"[!x]", "/", false},
           Row{"[/]", "/", false},
           Row{"[]]", "]", true},
           Row{"[]", "[]", true},
           Row{"[!]", "a", true},
           Row{"[!]]", "a]", true},
           Row{"[abc", "[abc", true},
           Row{"x[", "x[", true},
           Row{"\\*", "\\ab", true},
           Row{"\\?", "?", false},
           // Bytes above 127 count as negative.
           Row{"[\x80-a]", "Z", true},
           Row{"[a-\xff]", "z", false},
       })
    EXPECT_EQ(path_pattern_matches(pattern, path), matches) << pattern << " and " << path;
}

TEST(PathPattern, HasBoundsAndNoExplosion) {
  const std::string longest(4096, 'a');
  EXPECT_EQ(code_of([&] { path_pattern_matches(longest + "a", "a"); }), "size_limit");
  EXPECT_EQ(code_of([&] { path_pattern_matches("a", longest + "a"); }), "size_limit");
  std::string stars;
  while (stars.size() < 4094) stars += "*a";
  // A matcher that backtracks would not come back from this one.
  EXPECT_FALSE(path_pattern_matches(stars + "b", longest));
  EXPECT_TRUE(path_pattern_matches(stars, longest));
}

}  // namespace
}  // namespace tavro
