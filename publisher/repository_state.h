#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// What a repository says now: the signed bodies of its documents.
struct RepositoryState {
  json root, timestamp, snapshot;
  /// "targets" and every role that is reached by delegations from it.
  std::map<std::string, json> roles;

  bool consistent() const { return root.value("consistent_snapshot", false); }
};

/// Who may sign for a role: the record with `keyids` and `threshold`, and the keys of the one who
/// says so. Valid as long as the state is not changed.
struct Authority {
  const json& record;
  const json& keys;
};

/// The keys that the record of an authority lists.
std::set<std::string> ids_of(const json& record);

bool is_top_level(std::string_view role);

/// Throws `unknown_role` for a role that is neither top-level nor delegated.
Authority authority_of(const RepositoryState& state, std::string_view role);

/// The role that delegates to this one; empty for a top-level role and one that none delegates to.
std::string delegator_of(const RepositoryState& state, std::string_view role);

/// Throws `target_not_delegated` unless the delegations down to the role select the path.
void require_delegated(const RepositoryState& state, std::string_view role, std::string_view path);

/// What a client is told of a target path, and by which role. Valid as long as the state is not
/// changed.
struct ListedTarget {
  std::string role;
  const json& description;
};

/// Looks the path up as a client does: depth first in the order of the delegations, those that do
/// not select it left out, and no further than a terminating one.
std::optional<ListedTarget> look_up(const RepositoryState& state, std::string_view path);

/// Names below the served folder. A document of another role than root and timestamp, and a target,
/// have names that depend on the version or the hash where snapshots are consistent. A role whose
/// name would lead out of the folder is `unsafe_path`.
std::string root_name(const json& body);
std::string timestamp_name();
std::string document_name(const RepositoryState& state, std::string_view role, const json& version);
std::string target_name(const RepositoryState& state, std::string_view path,
                        std::string_view sha256);

/// Reads what a repository serves, and proves what a client proves with the exception of expiry,
/// the whole chain of roots and all delegated roles. Throws `invalid_repository`, the codes of
/// `read_file`, `parse_json`, `shape` and `verify_threshold`, and `hash_mismatch`.
RepositoryState read_repository(const std::filesystem::path& served);

}  // namespace tavro
