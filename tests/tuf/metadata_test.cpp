#include "tuf/metadata.h"

#include "support/signed_repository.h"
#include "support/testing.h"

namespace tavro {
namespace {

using Texts = std::vector<std::string>;

/// A JSON text of so many bytes.
std::string text(std::size_t size, char byte = 'a') { return '"' + std::string(size, byte) + '"'; }

/// Where to put each of the values (JSON texts, empty to remove the member), and a piece of the
/// answer to them; empty when the document still passes.
struct Row {
  std::string place;
  std::string answer;
  Texts values;
};

void expect_answers(const json& body, const char* role, const std::vector<Row>& rows) {
  for (const auto& [place, answer, values] : rows)
    for (const std::string& value : values) {
      json document = SignedRepository::sign(body, {"anybody"});
      const json::json_pointer pointer((place.starts_with("sign") ? "/" : "/signed/") + place);
      if (value.empty()) document.at(pointer.parent_pointer()).erase(pointer.back());
      if (!value.empty()) document[pointer] = json::parse(value);
      const std::string failure = failure_of([&] { shape(document, role); });
      EXPECT_TRUE(failure.empty() == answer.empty() && failure.find(answer) != std::string::npos)
          << pointer << " " << value << " gave " << failure;
    }
}

TEST(MetadataShape, OfEnvelopesRootsAndReferences) {
  const SignedRepository repository;
  expect_answers(
      repository.timestamp, "timestamp",
      {{"signed", "a signed object and signature array", {"", "[]"}},
       {"signatures", "", {"[]"}},
       {"signatures/0/sig", "a key ID and signature string", {"", "1"}},
       {"signatures", "repeats a", {R"([{"keyid":"k","sig":""},{"keyid":"k","sig":"1"}])"}},
       {"_type", "metadata_type: Unexpected metadata type", {R"("snapshot")"}},
       {"expires", "invalid_metadata: Metadata is missing a required field", {"", "7"}},
       {"spec_version", "", {R"("1.0")", "\"1." + std::string(30, '7') + '"'}},
       {"spec_version", "unsupported_spec: A", {R"("2.0")", R"("01.0")", R"("1.00")", R"("1")"}},
       {"spec_version", "unsupported_spec", {R"("1.0.0.0")", R"("1.0\n")", R"("1.0.0-rc1")"}},
       {"spec_version", "unsupported_spec", {"\"1." + std::string(31, '7') + '"'}},
       {"version", "invalid_version: Metadata version must be positive", {"0"}},
       {"version", "version must be a positive integer", {"1.0", "-1"}},
       {"version", "", {"18446744073709551615"}},
       {"meta", "references must be an object", {"", "[]"}},
       {"meta/targets.json", "must describe only snapshot.json", {R"({"version":1})"}},
       {"meta/snapshot.json/hashes", "invalid_hashes", {"{}", "null"}}});
  expect_answers(repository.root, "root",
                 {{"consistent_snapshot", "must be a boolean", {R"("yes")"}},
                  {"consistent_snapshot", "", {""}},
                  {"roles", "Root roles must be an object", {"[]", ""}},
                  {"roles/snapshot", "invalid_metadata", {""}},
                  {"roles/mirrors", "Invalid signing authority", {"{}"}},
                  {"roles/other", "", {"7"}},
                  {"roles/root/threshold", "invalid_version", {"0"}},
                  {"roles/root/keyids/0", "key absent from its", {"1", R"("k")"}}});
  expect_answers(repository.snapshot, "snapshot",
                 {{"meta/targets.json", "must describe targets.json", {""}},
                  {"meta/x.json", "", {R"({"version":2})"}},
                  {"meta/x.json", "must contain a version", {"{}"}},
                  {"meta/targets.json/length", "invalid_length", {"-1", "1.0"}}});
}

TEST(MetadataShape, OfTargetsAndDelegations) {
  SignedRepository repository;
  repository.add_target(repository.targets, "x", "content");
  repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
  repository.delegate(repository.targets, "maps", {{"path_hash_prefixes", {"0f", "1"}}}, true);
  const char* selector = "exactly one path selector and a terminating boolean";
  expect_answers(
      repository.targets, "targets",
      {{"targets", "Targets must be an object", {"", "[]"}},
       {"targets/..~1x", "unsafe_path", {"{}"}},
       {"targets/x", "must contain a length", {R"("length")"}},
       {"targets/x/hashes", "Target has no authenticated hashes", {""}},
       {"targets/x/hashes/md5", "unsupported_hash", {R"("00")"}},
       {"targets/x/hashes/sha256", "", {text(64, 'A')}},
       {"targets/x/hashes/sha256", "invalid length or", {text(64, 'g'), text(63)}},
       {"targets/x/hashes/sha512", "invalid length or", {text(64)}},
       {"targets/x/custom", "custom data must be an object", {"[]"}},
       {"delegations", "Invalid delegations", {"null", "{}"}},
       {"delegations/keys/k", "Invalid signing key shape", {"{}"}},
       {"delegations/roles/0/name", "must have a role name", {"", "1"}},
       {"delegations/roles/0/name", "size_limit: Delegated", {text(0), text(4097)}},
       {"delegations/roles/0/name", "", {text(4096)}},
       {"delegations/roles/0/name", "non-top-level", {R"("snapshot")", R"("maps")"}},
       {"delegations/roles/0/keyids/0", "key absent from its", {R"("k")"}},
       {"delegations/roles/1/paths", selector, {"[]"}},
       {"delegations/roles/0/terminating", selector, {"", "1"}},
       {"delegations/roles/0/paths", "selector must", {R"("*")", "[1]"}},
       {"delegations/roles/0/paths/0", "size_limit: Delegation pattern", {text(4097)}},
       {"delegations/roles/1/path_hash_prefixes/0", "prefix", {text(0), R"("0F")", text(65)}},
       {"delegations/roles/1/path_hash_prefixes/0", "", {text(64)}}});
}

TEST(MetadataTime, ReadsUtcCalendarTimeToTheMicrosecond) {
  const auto before = parse_tuf_time("1969-12-31T23:59:58.5Z").time_since_epoch();
  EXPECT_EQ(before, std::chrono::microseconds(-1500000));
  EXPECT_EQ(parse_tuf_time("2030-01-01T00:00:00.123456789Z"),
            parse_tuf_time("2030-01-01T00:00:00.123456Z"));
  for (const char* edge : {"2000-02-29T00:00:00Z", "0000-01-01T00:00:00Z", "9999-12-31T23:59:59Z"})
    EXPECT_NO_THROW(parse_tuf_time(edge)) << edge;
  const std::pair<std::string, Texts> refused[] = {
      {"must use a UTC ISO-8601", {"2030-01-01T00:00:00.Z", "2030-01-01T00:00:00.1234567890Z"}},
      {"must use a UTC ISO-8601", {"2030-01-01t00:00:00Z", "2030-01-01T00:00:00+00:00"}},
      {"must contain decimal digits", {"-030-01-01T00:00:00Z"}},
      {"Invalid UTC calendar", {"2030-00-01T00:00:00Z", "2030-04-31T00:00:00Z"}},
      {"Invalid UTC calendar", {"1900-02-29T00:00:00Z", "2030-01-01T24:00:00Z"}},
      {"Invalid UTC calendar", {"2030-01-01T00:00:60Z"}},
      {"Invalid fractional second", {"2030-01-01T00:00:00.1x3Z"}}};
  for (const auto& [failure, times] : refused)
    for (const std::string& time : times)
      EXPECT_NE(failure_of([&] { parse_tuf_time(time); }).find(failure), std::string::npos) << time;
}

}  // namespace
}  // namespace tavro
