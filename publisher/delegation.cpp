#include "publisher/delegation.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

#include "domain/error.h"
#include "publisher/keys.h"
#include "publisher/repository_state.h"

namespace tavro {
namespace {

constexpr std::size_t max_role_name = 100;

json delegation_record(const Delegation& delegation) {
  require(delegation.paths.empty() != delegation.hash_prefixes.empty(), "usage",
          "Choose what is delegated with either --game and --path, or --hash-prefix");
  json record = authority_record(delegation.keys);
  const std::size_t keys = record.at("keyids").size();
  require(delegation.keys.threshold <= keys, "invalid_threshold", [&] {
    return "Role " + delegation.name + " cannot need " + std::to_string(delegation.keys.threshold) +
           " of its " + std::to_string(keys) + " keys";
  });
  record["name"] = delegation.name;
  record["terminating"] = delegation.terminating;
  if (!delegation.paths.empty())
    record["paths"] = delegation.paths;
  else
    record["path_hash_prefixes"] = delegation.hash_prefixes;
  return record;
}

}  // namespace

// One file name under every server.
void require_role_name(const std::string& name) {
  const auto plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
  };
  require(!name.empty() && name.size() <= max_role_name && std::ranges::all_of(name, plain),
          "invalid_role", "A role name has 1 to 100 letters, digits, hyphens and underscores");
  require(!is_top_level(name), "invalid_role",
          [&] { return "Role " + name + " is the root's to give; choose another name"; });
}

void put_delegation(json& body, const Delegation& delegation) {
  json record = delegation_record(delegation);
  if (!body.contains("delegations"))
    body["delegations"] = {{"keys", json::object()}, {"roles", json::array()}};
  erase_delegation(body, delegation.name);
  for (const json& key : delegation.keys.records) body["delegations"]["keys"][key_id(key)] = key;
  body["delegations"]["roles"].push_back(std::move(record));
}

void erase_delegation(json& body, const std::string& name) {
  json& delegations = body.at("delegations");
  json& roles = delegations.at("roles");
  std::erase_if(roles.get_ref<json::array_t&>(),
                [&](const json& record) { return record.at("name") == name; });
  std::set<std::string> listed;
  for (const json& record : roles) listed.merge(ids_of(record));
  std::erase_if(delegations.at("keys").get_ref<json::object_t&>(),
                [&](const auto& entry) { return !listed.contains(entry.first); });
}

}  // namespace tavro
