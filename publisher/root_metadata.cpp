#include "publisher/root_metadata.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <set>

#include "domain/error.h"
#include "tuf/metadata.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

void add_keys(json& keys, const RoleKeys& role) {
  for (const json& record : role.records) keys[key_id(record)] = record;
}

RoleKeys role_keys(const json& root, const char* role) {
  const json& authority = root.at("roles").at(role);
  RoleKeys keys;
  for (const json& id : authority.at("keyids"))
    keys.records.push_back(root.at("keys").at(id.get<std::string>()));
  keys.threshold = positive_version(authority.at("threshold"));
  return keys;
}

}  // namespace

json authority_record(const RoleKeys& role) {
  std::vector<std::string> ids;
  for (const json& record : role.records)
    if (const std::string id = key_id(record); std::ranges::find(ids, id) == ids.end())
      ids.push_back(id);
  return {{"keyids", std::move(ids)}, {"threshold", role.threshold}};
}

json root_body(const RootRequest& request) {
  json keys = json::object();
  json roles = json::object();
  const std::pair<const char*, const RoleKeys*> all[] = {{"root", &request.root},
                                                         {"timestamp", &request.timestamp},
                                                         {"snapshot", &request.snapshot},
                                                         {"targets", &request.targets}};
  for (const auto& [name, role] : all) {
    add_keys(keys, *role);
    roles[name] = authority_record(*role);
  }
  return {{"_type", "root"},
          {"spec_version", "1.0.31"},
          {"version", request.version},
          {"expires", request.expires},
          {"consistent_snapshot", request.consistent_snapshot},
          {"keys", std::move(keys)},
          {"roles", std::move(roles)}};
}

json sign_metadata(json body, const std::vector<const SigningKey*>& keys) {
  const std::string message = canonical_json(body);
  // One entry per key, in the order of the ids: a repeated one would refuse the whole document.
  std::map<std::string, std::string> signatures;
  for (const SigningKey* key : keys)
    if (!signatures.contains(key->id())) signatures[key->id()] = key->sign(message);
  json list = json::array();
  for (const auto& [id, signature] : signatures)
    list.push_back({{"keyid", id}, {"sig", signature}});
  return {{"signed", std::move(body)}, {"signatures", std::move(list)}};
}

void check_root(const json& document) {
  shape(document, "root");
  const json& body = document.at("signed");
  const json& roles = body.at("roles");
  verify_threshold(document, body.at("keys"), roles.at("root"));
  // A role that no set of its keys could ever satisfy would only show once it signs.
  for (const char* role : {"timestamp", "snapshot", "targets"}) {
    const std::set<std::string> ids = roles.at(role).at("keyids");
    require(positive_version(roles.at(role).at("threshold")) <= ids.size(), "invalid_threshold",
            [&] { return std::string("The threshold of ") + role + " exceeds its keys"; });
  }
  const auto expires = parse_tuf_time(body.at("expires").get_ref<const std::string&>());
  require(!has_expired(expires, std::chrono::system_clock::now()), "expired_metadata",
          "The root would have expired already; choose a later time");
}

std::string expiry_in_days(unsigned days) {
  const std::time_t then = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() +
                                                                std::chrono::days(days));
  std::tm parts{};
  ::gmtime_r(&then, &parts);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return std::string(text, length);
}

RootRequest root_request(const json& root) {
  RootRequest request;
  request.version = positive_version(root.at("version"));
  request.expires = root.at("expires");
  request.consistent_snapshot = root.value("consistent_snapshot", false);
  request.root = role_keys(root, "root");
  request.timestamp = role_keys(root, "timestamp");
  request.snapshot = role_keys(root, "snapshot");
  request.targets = role_keys(root, "targets");
  return request;
}

}  // namespace tavro
