#include "tuf/metadata.h"

#include "documents/documents.h"
#include "support/signed_repository.h"

namespace tavro::metadata_test {

/// Each damage of the table is done to the signed body, or to the envelope. "@" stands for 63
/// digits.
void expect_shapes(const json& body, const char* role, const std::string& table) {
  const json document = SignedRepository::sign(body, {"anybody"});
  expect_answers(table, [&](std::string damage) {
    if (const auto at = damage.find('@'); at != damage.npos) damage.replace(at, 1, 63, 'a');
    shape(damaged(document, damage.starts_with("/sign") ? damage : "/signed" + damage), role);
  });
}

TEST(MetadataShape, OfEnvelopesRootsAndReferences) {
  const SignedRepository repository;
  expect_shapes(repository.timestamp, "timestamp",
                R"(a signed object and signature array|/signed|/signed []
|/signatures []
a key ID and signature string|/signatures/0/sig|/signatures/0/sig 1
repeats a|/signatures [{"keyid":"k","sig":""},{"keyid":"k","sig":"1"}]
metadata_type: Unexpected metadata type|/_type "snapshot"
invalid_metadata: Metadata is missing a required field|/expires|/expires 7
|/spec_version "1.0"|/spec_version "1.777777777777777777777777777777"
unsupported_spec: A|/spec_version "2.0"|/spec_version "01.0"|/spec_version "1.00"|/spec_version "1"
unsupported_spec|/spec_version "1.0.0.0"|/spec_version "1.0\n"|/spec_version "1.0.0-rc1"
unsupported_spec|/spec_version "1.7777777777777777777777777777777"
invalid_version: Metadata version must be positive|/version 0
version must be a positive integer|/version 1.0|/version -1
|/version 18446744073709551615
references must be an object|/meta|/meta []
must describe only snapshot.json|/meta/targets.json {"version":1}
invalid_hashes|/meta/snapshot.json/hashes {}|/meta/snapshot.json/hashes null)");
  expect_shapes(repository.root, "root", R"(must be a boolean|/consistent_snapshot "yes"
|/consistent_snapshot|/roles/other 7
Root roles must be an object|/roles []|/roles
invalid_metadata|/roles/snapshot
Invalid signing authority|/roles/mirrors {}
invalid_version|/roles/root/threshold 0
key absent from its|/roles/root/keyids/0 1|/roles/root/keyids/0 "k")");
  expect_shapes(repository.snapshot, "snapshot", R"(must describe targets.json|/meta/targets.json
|/meta/x.json {"version":2}
must contain a version|/meta/x.json {}
invalid_length|/meta/targets.json/length -1|/meta/targets.json/length 1.0)");
}

TEST(MetadataShape, OfTargetsAndDelegations) {
  SignedRepository repository;
  repository.add_target(repository.targets, "x", "content");
  repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
  repository.delegate(repository.targets, "maps", {{"path_hash_prefixes", {"0f", "1"}}}, true);
  expect_shapes(repository.targets, "targets",
                R"(Targets must be an object|/targets|/targets []
unsafe_path|/targets/..~1x {}
must contain a length|/targets/x "length"
Target has no authenticated hashes|/targets/x/hashes
unsupported_hash|/targets/x/hashes/md5 "00"
custom data must be an object|/targets/x/custom []
Invalid delegations|/delegations null|/delegations {}
Invalid signing key shape|/delegations/keys/k {}
must have a role name|/delegations/roles/0/name|/delegations/roles/0/name 1
size_limit: Delegated|/delegations/roles/0/name ""|/delegations/roles/0/name "<4097>"
|/delegations/roles/0/name "<4096>"
non-top-level|/delegations/roles/0/name "snapshot"|/delegations/roles/0/name "maps"
key absent from its|/delegations/roles/0/keyids/0 "k"
one path selector and|/delegations/roles/1/paths []
and a terminating boolean|/delegations/roles/0/terminating|/delegations/roles/0/terminating 1
selector must|/delegations/roles/0/paths "*"|/delegations/roles/0/paths [1]
size_limit: Delegation pattern|/delegations/roles/0/paths/0 "<4097>"
prefix|/delegations/roles/1/path_hash_prefixes/0 ""|/delegations/roles/1/path_hash_prefixes/0 "0F"
invalid length or|/targets/x/hashes/sha256 "<64>"|/targets/x/hashes/sha256 "@"
invalid length or|/targets/x/hashes/sha512 "@a"
|/targets/x/hashes/sha256 "@A"|/delegations/roles/1/path_hash_prefixes/0 "@a"
prefix|/delegations/roles/1/path_hash_prefixes/0 "@aa")");
}

TEST(MetadataTime, ReadsUtcCalendarTimeToTheMicrosecond) {
  const auto before = parse_tuf_time("1969-12-31T23:59:58.5Z").time_since_epoch();
  EXPECT_EQ(before, std::chrono::microseconds(-1500000));
  EXPECT_EQ(parse_tuf_time("2030-01-01T00:00:00.123456789Z"),
            parse_tuf_time("2030-01-01T00:00:00.123456Z"));
  expect_answers(R"(|2000-02-29T00:00:00Z|0000-01-01T00:00:00Z|9999-12-31T23:59:59Z
must use a UTC ISO-8601|2030-01-01T00:00:00.Z|2030-01-01T00:00:00.1234567890Z
must use a UTC ISO-8601|2030-01-01t00:00:00Z|2030-01-01T00:00:00+00:00
must contain decimal digits|-030-01-01T00:00:00Z
Invalid UTC calendar|2030-00-01T00:00:00Z|2030-04-31T00:00:00Z|1900-02-29T00:00:00Z
Invalid UTC calendar|2030-01-01T24:00:00Z|2030-01-01T00:00:60Z
Invalid fractional second|2030-01-01T00:00:00.1x3Z)",
                 [](const std::string& time) { parse_tuf_time(time); });
}

}  // namespace tavro::metadata_test
