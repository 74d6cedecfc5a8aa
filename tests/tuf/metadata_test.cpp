#include "tuf/metadata.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "support/failure.h"
#include "support/signed_repository.h"

namespace tavro {
namespace {

/// A JSON text of so many bytes.
std::string text(std::size_t size, char byte = 'a') { return '"' + std::string(size, byte) + '"'; }

/// Where to put each of the values (JSON texts, empty to remove the member), and a piece of the
/// answer to them; empty when the document still passes.
struct Row {
  const char* pointer;
  std::string answer;
  std::vector<std::string> values;
};

void expect_answers(const json& body, const char* role, const std::vector<Row>& rows) {
  for (const Row& row : rows)
    for (const std::string& value : row.values) {
      json document = SignedRepository::sign(body, {"anybody"});
      const json::json_pointer pointer(row.pointer);
      if (value.empty()) document.at(pointer.parent_pointer()).erase(pointer.back());
      if (!value.empty()) document[pointer] = json::parse(value);
      const std::string failure = failure_of([&] { shape(document, role); });
      const bool expected =
          failure.empty() == row.answer.empty() && failure.find(row.answer) != std::string::npos;
      EXPECT_TRUE(expected) << row.pointer << " " << value << " gave " << failure;
    }
}

TEST(MetadataShape, OfEnvelopesRootsAndReferences) {
  const SignedRepository repository;
  expect_answers(
      repository.timestamp, "timestamp",
      {{"/signed", "a signed object and signature array", {"", "[]"}},
       {"/signatures", "a signed object and signature array", {"", "{}"}},
       {"/signatures", "", {"[]"}},
       {"/signatures/0/sig", "a key ID and signature string", {"", "1"}},
       {"/signatures", "repeats a", {R"([{"keyid":"k","sig":""},{"keyid":"k","sig":"1"}])"}},
       {"/signed/_type", "metadata_type: Unexpected metadata type", {R"("snapshot")", "1"}},
       {"/signed/expires", "invalid_metadata: Metadata is missing a required field", {"", "7"}},
       {"/signed/spec_version", "", {R"("1.0")", "\"1." + std::string(30, '7') + '"'}},
       {"/signed/spec_version",
        "unsupported_spec: A stable TUF 1.x[.y] ",
        {R"("2.0")", R"("01.0")", R"("1.00")", R"("1")", R"("1.0.0.0")", R"("1.0.0-rc1")",
         R"("1.0\n")", "\"1." + std::string(31, '7') + '"'}},
       {"/signed/version", "invalid_version: Metadata version must be positive", {"0"}},
       {"/signed/version", "version must be a positive integer", {"1.0", "-1"}},
       {"/signed/version", "", {"18446744073709551615"}},
       {"/signed/meta", "references must be an object", {"", "[]"}},
       {"/signed/meta/targets.json", "must describe only snapshot.json", {R"({"version":1})"}},
       {"/signed/meta/snapshot.json/hashes", "invalid_hashes", {"{}", "null"}},
       {"/signed/unknown", "", {"[1]"}}});
  expect_answers(repository.root, "root",
                 {{"/signed/keys", "Signing keys must be an object", {"[]"}},
                  {"/signed/consistent_snapshot", "must be a boolean", {R"("yes")"}},
                  {"/signed/consistent_snapshot", "", {""}},
                  {"/signed/roles", "Root roles must be an object", {"[]", ""}},
                  {"/signed/roles/snapshot", "invalid_metadata", {""}},
                  {"/signed/roles/mirrors", "Invalid signing authority", {"{}"}},
                  {"/signed/roles/other", "", {"7"}},
                  {"/signed/roles/root/threshold", "invalid_version", {"0"}},
                  {"/signed/roles/root/keyids/0", "key absent from its", {"1", R"("k")"}}});
  expect_answers(repository.snapshot, "snapshot",
                 {{"/signed/meta/targets.json", "must describe targets.json", {""}},
                  {"/signed/meta/x.json", "", {R"({"version":2})"}},
                  {"/signed/meta/x.json", "must contain a version", {"{}"}},
                  {"/signed/meta/targets.json/length", "invalid_length", {"-1", "1.0"}}});
}

TEST(MetadataShape, OfTargetsAndDelegations) {
  SignedRepository repository;
  repository.add_target(repository.targets, "x", "content");
  repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
  repository.delegate(repository.targets, "maps", {{"path_hash_prefixes", {"0f", "1"}}}, true);
  const char* selector = "exactly one path selector and a terminating boolean";
  const char* prefix = "/signed/delegations/roles/1/path_hash_prefixes/0";
  expect_answers(
      repository.targets, "targets",
      {{"/signed/targets", "Targets must be an object", {"", "[]"}},
       {"/signed/targets/..~1x", "unsafe_path", {"{}"}},
       {"/signed/targets/x", "must contain a length", {R"("length")"}},
       {"/signed/targets/x/hashes", "Target has no authenticated hashes", {""}},
       {"/signed/targets/x/hashes/md5", "unsupported_hash", {R"("00")"}},
       {"/signed/targets/x/hashes/sha256", "must be a hexadecimal string", {"1"}},
       {"/signed/targets/x/hashes/sha256", "", {text(64, 'A')}},
       {"/signed/targets/x/hashes/sha256", "invalid length or", {text(64, 'g'), text(63)}},
       {"/signed/targets/x/hashes/sha512", "invalid length or", {text(64)}},
       {"/signed/targets/x/custom", "custom data must be an object", {"[]"}},
       {"/signed/delegations", "Invalid delegations", {"null", "{}"}},
       {"/signed/delegations", "", {""}},
       {"/signed/delegations/keys/k", "Invalid signing key shape", {"{}"}},
       {"/signed/delegations/roles/0/name", "must have a role name", {"", "1"}},
       {"/signed/delegations/roles/0/name", "size_limit: Delegated", {text(0), text(4097)}},
       {"/signed/delegations/roles/0/name", "", {text(4096)}},
       {"/signed/delegations/roles/0/name", "non-top-level", {R"("snapshot")", R"("maps")"}},
       {"/signed/delegations/roles/0/keyids/0", "key absent from its", {R"("k")"}},
       {"/signed/delegations/roles/1/paths", selector, {"[]"}},
       {"/signed/delegations/roles/0/terminating", selector, {"", "1"}},
       {"/signed/delegations/roles/0/paths", selector, {""}},
       {"/signed/delegations/roles/0/paths", "selector must", {R"("*")", "[1]"}},
       {"/signed/delegations/roles/0/paths", "", {"[]"}},
       {"/signed/delegations/roles/0/paths/0", "size_limit: Delegation pattern", {text(4097)}},
       {prefix, "Invalid delegation hash prefix", {text(0), R"("0F")", text(65)}},
       {prefix, "", {text(64)}}});
}

TEST(MetadataTime, ReadsUtcCalendarTimeToTheMicrosecond) {
  using std::chrono::microseconds;
  EXPECT_EQ(parse_tuf_time("1969-12-31T23:59:58.5Z").time_since_epoch(), microseconds(-1500000));
  EXPECT_EQ(parse_tuf_time("2030-01-01T00:00:00.123456789Z"),
            parse_tuf_time("2030-01-01T00:00:00.123456Z"));
  for (const char* edge : {"2000-02-29T00:00:00Z", "0000-01-01T00:00:00Z", "9999-12-31T23:59:59Z"})
    EXPECT_NO_THROW(parse_tuf_time(edge)) << edge;
  const auto expect = [](const std::string& message, const std::vector<const char*>& times) {
    for (const char* time : times)
      EXPECT_EQ(failure_of([&] { parse_tuf_time(time); }), "invalid_expiry: " + message) << time;
  };
  expect("Expiry must use a UTC ISO-8601 timestamp",
         {"2030-01-01T00:00:00.Z", "2030-01-01T00:00:00.1234567890Z", "2030-01-01t00:00:00Z",
          "2030-01-01T00:00:00+00:00"});
  expect("Timestamp fields must contain decimal digits", {"-030-01-01T00:00:00Z"});
  expect("Invalid UTC calendar time",
         {"2030-00-01T00:00:00Z", "2030-04-31T00:00:00Z", "1900-02-29T00:00:00Z",
          "2030-01-01T24:00:00Z", "2030-01-01T00:00:60Z"});
  expect("Invalid fractional second", {"2030-01-01T00:00:00.1x3Z"});
}

}  // namespace
}  // namespace tavro
