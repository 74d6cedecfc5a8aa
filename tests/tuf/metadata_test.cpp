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

struct Row {
  const char* pointer;
  std::string value;   ///< JSON text; empty to remove the member
  const char* answer;  ///< part of "code: message"; empty when the document still passes
};

/// Puts each value into a copy of the document and asks for the answer.
void expect_answers(const json& body, const char* role, const std::vector<Row>& rows) {
  const json valid = SignedRepository::sign(body, {"anybody"});
  ASSERT_EQ(failure_of([&] { shape(valid, role); }), "");
  for (const auto& [name, value, answer] : rows) {
    json document = valid;
    const json::json_pointer pointer(name);
    if (value.empty())
      document.at(pointer.parent_pointer()).erase(pointer.back());
    else
      document[pointer] = json::parse(value);
    const std::string failure = failure_of([&] { shape(document, role); });
    EXPECT_EQ(failure.empty(), *answer == '\0') << name << " " << value << " gave " << failure;
    EXPECT_NE(failure.find(answer), std::string::npos) << name << " " << value << ": " << failure;
  }
}

TEST(MetadataShape, OfTheEnvelope) {
  const SignedRepository repository;
  const char* version = "unsupported_spec: A stable TUF 1.x[.y] ";
  expect_answers(
      repository.timestamp, "timestamp",
      {{"/signed", "", "must contain a signed object and signature array"},
       {"/signatures", "{}", "must contain a signed object and signature array"},
       {"/signatures", "[]", ""},
       {"/signatures/0/sig", "1", "must contain a key ID and signature string"},
       {"/signatures", R"([{"keyid":"k","sig":""},{"keyid":"k","sig":"1"}])", "repeats a"},
       {"/signed/_type", R"("snapshot")", "metadata_type: Unexpected metadata type"},
       {"/signed/_type", "", "invalid_metadata: Metadata is missing a required field"},
       {"/signed/spec_version", R"("1.0")", ""},
       {"/signed/spec_version", "\"1." + std::string(30, '7') + '"', ""},
       {"/signed/spec_version", "\"1." + std::string(31, '7') + '"', version},
       {"/signed/spec_version", R"("2.0")", version},
       {"/signed/spec_version", R"("01.0")", version},
       {"/signed/spec_version", R"("1.00")", version},
       {"/signed/spec_version", R"("1")", version},
       {"/signed/spec_version", R"("1.0.0.0")", version},
       {"/signed/spec_version", R"("1.0.0-rc1")", version},
       {"/signed/spec_version", R"("1.0\n")", version},
       {"/signed/version", "0", "invalid_version: Metadata version must be positive"},
       {"/signed/version", "1.0", "invalid_version: Metadata version must be a positive integer"},
       {"/signed/version", "18446744073709551615", ""},
       {"/signed/expires", "7", "has an invalid field type"},
       {"/signed/unknown", "[1]", ""}});
}

TEST(MetadataShape, OfRootsAndReferences) {
  const SignedRepository repository;
  const char* authority = "Invalid signing authority";
  expect_answers(repository.root, "root",
                 {{"/signed/keys", "[]", "Signing keys must be an object"},
                  {"/signed/consistent_snapshot", R"("yes")", "must be a boolean"},
                  {"/signed/consistent_snapshot", "", ""},
                  {"/signed/roles", "[]", "Root roles must be an object"},
                  {"/signed/roles/snapshot", "", "invalid_metadata"},
                  {"/signed/roles/mirrors", "{}", authority},
                  {"/signed/roles/other", "7", ""},
                  {"/signed/roles/root/threshold", "0", "invalid_version"},
                  {"/signed/roles/targets/keyids", "{}", authority},
                  {"/signed/roles/targets/keyids/0", R"("k")", "key absent from its delegator"}});
  const char* described = "Timestamp must describe only snapshot.json";
  expect_answers(repository.timestamp, "timestamp",
                 {{"/signed/meta", "", "references must be an object"},
                  {"/signed/meta/targets.json", R"({"version":1})", described},
                  {"/signed/meta/snapshot.json/hashes", "{}", "must be a nonempty object"}});
  expect_answers(repository.snapshot, "snapshot",
                 {{"/signed/meta/targets.json", "", described},
                  {"/signed/meta/x.json", R"({"version":2})", ""},
                  {"/signed/meta/x.json", "{}", "must contain a version"},
                  {"/signed/meta/targets.json/length", "-1", "invalid_length"},
                  {"/signed/meta/targets.json/length", "1.0", "invalid_length"}});
}

TEST(MetadataShape, OfTargetsAndDelegations) {
  SignedRepository repository;
  repository.add_target(repository.targets, "x", "content");
  repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
  repository.delegate(repository.targets, "maps", {{"path_hash_prefixes", {"0f", "1"}}}, true);
  const char* names = "must be unique and non-top-level";
  const char* selector = "exactly one path selector and a terminating boolean";
  const char* prefix = "Invalid delegation hash prefix";
  const char* record = "/signed/delegations/roles/0/name";
  const char* first_prefix = "/signed/delegations/roles/1/path_hash_prefixes/0";
  expect_answers(
      repository.targets, "targets",
      {{"/signed/targets", "", "Targets must be an object"},
       {"/signed/targets/..~1x", "{}", "unsafe_path"},
       {"/signed/targets/x", R"("length")", "must contain a length"},
       {"/signed/targets/x/hashes", "", "Target has no authenticated hashes"},
       {"/signed/targets/x/hashes", "null", "must be a nonempty object"},
       {"/signed/targets/x/hashes/md5", R"("00")", "unsupported_hash"},
       {"/signed/targets/x/hashes/sha256", "1", "must be a hexadecimal string"},
       {"/signed/targets/x/hashes/sha256", text(64, 'A'), ""},
       {"/signed/targets/x/hashes/sha256", text(64, 'g'), "invalid length or hexadecimal"},
       {"/signed/targets/x/hashes/sha512", text(64), "invalid length or hexadecimal"},
       {"/signed/targets/x/custom", "[]", "custom data must be an object"},
       {"/signed/delegations", "null", "Invalid delegations"},
       {"/signed/delegations", "", ""},
       {"/signed/delegations/keys/k", "{}", "Invalid signing key shape"},
       {record, "", "must have a role name"},
       {record, text(0), "size_limit: Delegated role name exceeds its bound"},
       {record, text(4096), ""},
       {record, text(4097), "size_limit: Delegated role name exceeds its bound"},
       {record, R"("snapshot")", names},
       {record, R"("maps")", names},
       {"/signed/delegations/roles/0/keyids/0", R"("k")", "key absent from its delegator"},
       {"/signed/delegations/roles/1/paths", "[]", selector},
       {"/signed/delegations/roles/0/paths", "", selector},
       {"/signed/delegations/roles/0/terminating", "", selector},
       {"/signed/delegations/roles/0/paths", R"("*")", "selector must be an array"},
       {"/signed/delegations/roles/0/paths", "[1]", "selector must contain strings"},
       {"/signed/delegations/roles/0/paths", "[]", ""},
       {"/signed/delegations/roles/0/paths/0", text(4097), "size_limit: Delegation pattern"},
       {first_prefix, text(0), prefix},
       {first_prefix, R"("0F")", prefix},
       {first_prefix, text(64), ""},
       {first_prefix, text(65), prefix}});
}

TEST(MetadataTime, ReadsUtcToTheMicrosecond) {
  using std::chrono::microseconds;
  EXPECT_EQ(parse_tuf_time("1970-01-01T00:00:01.5Z").time_since_epoch(), microseconds(1500000));
  EXPECT_EQ(parse_tuf_time("1969-12-31T23:59:59Z").time_since_epoch(), microseconds(-1000000));
  EXPECT_EQ(parse_tuf_time("2030-01-01T00:00:00.123456789Z"),
            parse_tuf_time("2030-01-01T00:00:00.123456Z"));
  for (const char* edge : {"2000-02-29T00:00:00Z", "0000-01-01T00:00:00Z", "9999-12-31T23:59:59Z"})
    EXPECT_NO_THROW(parse_tuf_time(edge)) << edge;
}

TEST(MetadataTime, RefusesWhatIsNoUtcCalendarTime) {
  const std::string form = "Expiry must use a UTC ISO-8601 timestamp";
  const std::string digits = "Timestamp fields must contain decimal digits";
  const std::string calendar = "Invalid UTC calendar time";
  for (const auto& [expected, time] : std::vector<std::pair<std::string, const char*>>{
           {form, "2030-01-01T00:00:00.Z"},
           {form, "2030-01-01T00:00:00.1234567890Z"},
           {form, "2030-01-01t00:00:00Z"},
           {form, "2030-01-01T00:00:00+00:00"},
           {digits, "-030-01-01T00:00:00Z"},
           {calendar, "2030-00-01T00:00:00Z"},
           {calendar, "2030-04-31T00:00:00Z"},
           {calendar, "1900-02-29T00:00:00Z"},
           {calendar, "2030-01-01T24:00:00Z"},
           {calendar, "2030-01-01T00:00:60Z"},
           {"Invalid fractional second", "2030-01-01T00:00:00.1x3Z"}})
    EXPECT_EQ(failure_of([&, &when = time] { parse_tuf_time(when); }),
              "invalid_expiry: " + expected)
        << time;
}

}  // namespace
}  // namespace tavro
