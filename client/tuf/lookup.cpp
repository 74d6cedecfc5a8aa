#include <algorithm>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/relative_path.h"
#include "tuf/threshold.h"
#include "tuf/tuf_state.h"

namespace tavro {
namespace {

bool selected_by_pattern(const json& patterns, std::string_view path) {
  return std::ranges::any_of(patterns, [&](const json& pattern) {
    return path_pattern_matches(pattern.get_ref<const std::string&>(), path);
  });
}

bool selected_by_hash(const json& prefixes, std::string_view path) {
  const std::string hash = digest(path, "sha256");
  return std::ranges::any_of(prefixes, [&](const json& entry) {
    const auto& prefix = entry.get_ref<const std::string&>();
    hash_prefix_shape(prefix);
    return hash.starts_with(prefix);
  });
}

bool selects(const json& record, std::string_view path) {
  if (record.contains("paths")) return selected_by_pattern(record.at("paths"), path);
  return selected_by_hash(record.at("path_hash_prefixes"), path);
}

}  // namespace

json TufClient::Impl::target(std::string_view path) {
  auto description = find_target(path);
  require(description.has_value(), "target_not_found",
          [&] { return "Target is not authorized by the repository: " + std::string(path); });
  return *std::move(description);
}

std::optional<json> TufClient::Impl::find_target(std::string_view path) {
  validate_relative_path(path, false);
  if (!refreshed) refresh();
  if (!selected_loaded) load_selected_metadata();
  Walk walk{.path = path, .visited = {}};
  std::optional<json> description = visit(walk, "targets", targets);
  if (!description) return std::nullopt;
  length(*description);
  const bool hashed = description->contains("hashes") && description->at("hashes").is_object() &&
                      !description->at("hashes").empty();
  require(hashed, "invalid_hashes", "Target has no authenticated hashes");
  return description;
}

/// What this role says about the path, or those to whom it delegates, depth first in the order of
/// the document. `role` names the role whose `document` is given.
std::optional<json> TufClient::Impl::visit(Walk& walk, const std::string& role,
                                           const json& document) {
  if (walk.visited.contains(role)) return std::nullopt;
  require(walk.visited.size() < limits.delegated_roles, "delegation_limit",
          "Repository delegation limit reached");
  walk.visited.insert(role);

  const json& body = document.at("signed");
  const auto own = body.at("targets").find(walk.path);
  if (own != body.at("targets").end()) return *own;
  if (!body.contains("delegations")) return std::nullopt;
  const json& delegations = body.at("delegations");
  for (const json& record : delegations.at("roles")) {
    if (!selects(record, walk.path)) continue;
    std::optional<json> found = visit_delegation(walk, record, delegations.at("keys"));
    if (found || walk.terminated) return found;
    if (record.at("terminating").get<bool>()) {
      walk.terminated = true;
      return std::nullopt;
    }
  }
  return std::nullopt;
}

/// Opens the role of a record that selected the path, unless this look-up did so before.
std::optional<json> TufClient::Impl::visit_delegation(Walk& walk, const json& record,
                                                      const json& keys) {
  const auto& name = record.at("name").get_ref<const std::string&>();
  if (walk.visited.contains(name)) return std::nullopt;
  require(walk.visited.size() < limits.delegated_roles, "delegation_limit",
          "Repository delegation limit reached");
  const json& known = snapshot.at("signed").at("meta");
  const auto reference = known.find(name + ".json");
  require(reference != known.end(), "missing_role",
          "Delegated role is absent from the authenticated snapshot");
  const json child = load_role(name, *reference, keys, record, "targets");
  return visit(walk, name, child);
}

}  // namespace tavro
