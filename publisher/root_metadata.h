#pragma once

#include <map>
#include <string>
#include <vector>

#include "publisher/keys.h"

namespace tavro {

/// Who may sign for a role.
struct RoleKeys {
  std::vector<json> records;
  unsigned long long threshold = 1;
};

struct RootRequest {
  unsigned long long version = 1;
  std::string expires;  ///< UTC, "2030-01-01T00:00:00Z"
  bool consistent_snapshot = true;
  RoleKeys root, timestamp, snapshot, targets;
};

/// The `keyids` and the `threshold` of a role, each key once.
json authority_record(const RoleKeys& role);

/// The `signed` body of root metadata.
json root_body(const RootRequest& request);

/// A metadata document: the body with one signature per key, over its canonical form.
json sign_metadata(json body, const std::vector<const SigningKey*>& keys);

/// Proves a root as a client that trusts nothing else does: shape, its own threshold, and an expiry
/// that lies ahead (`expired_metadata`).
void check_root(const json& document);

/// "YYYY-MM-DDTHH:MM:SSZ", this many days from now.
std::string expiry_in_days(unsigned days);

/// The keys and thresholds of a root body.
RootRequest root_request(const json& root);

}  // namespace tavro
