#pragma once

#include <string>
#include <vector>

#include "domain/json.h"
#include "publisher/root_metadata.h"

namespace tavro {

struct Delegation {
  std::string name;
  RoleKeys keys;
  /// Exactly one of the two: patterns of paths, or prefixes of their SHA-256.
  std::vector<std::string> paths, hash_prefixes;
  bool terminating = false;
  /// The role may sign for the first time later, with its first target: its paths are its own, so
  /// that meanwhile a client misses nothing but what it would list.
  bool may_wait = false;
};

/// Throws `invalid_role` for what cannot be the name of a delegated role: 1 to 100 of
/// "a-zA-Z0-9_-", and none of the top-level names.
void require_role_name(const std::string& name);

/// Puts the delegation last in the body of the role that delegates, in place of one with its name.
/// Throws `usage`, `invalid_threshold`.
void put_delegation(json& body, const Delegation& delegation);

/// Removes the delegation, and the keys that no other one lists.
void erase_delegation(json& body, const std::string& name);

}  // namespace tavro
