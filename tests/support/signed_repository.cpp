#include "support/signed_repository.h"

#include "domain/crypto.h"

namespace tavro {
namespace {

json empty_body(const char* role) {
  return {{"_type", role},
          {"spec_version", "1.0.31"},
          {"version", 1},
          {"expires", "2040-01-01T00:00:00Z"},
          {role, json::object()}};
}

void raise(json& body) { body["version"] = body.at("version").get<unsigned long long>() + 1; }

}  // namespace

SignedRepository::SignedRepository()
    : root(empty_body("root")),
      timestamp(empty_body("timestamp")),
      snapshot(empty_body("snapshot")),
      targets(empty_body("targets")) {
  root["consistent_snapshot"] = true;
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) set_keys(role, {role});
  publish();
}

void SignedRepository::publish() {
  const bool consistent = root.at("consistent_snapshot").get<bool>();
  const auto versioned = [&](const std::string& role, const json& body) {
    return serve(role, body, consistent ? body.at("version").dump() + "." : "");
  };
  snapshot["meta"] = {{"targets.json", versioned("targets", targets)}};
  for (const auto& [name, body] : delegated)
    snapshot["meta"][name + ".json"] = versioned(name, body);
  timestamp["meta"] = {{"snapshot.json", versioned("snapshot", snapshot)}};
  serve("timestamp", timestamp, "");
}

void SignedRepository::publish_update() {
  for (json* body : {&targets, &snapshot, &timestamp}) raise(*body);
  publish();
}

void SignedRepository::publish_root() {
  raise(root);
  files[root.at("version").dump() + ".root.json"] = {200, root_bytes()};
}

void SignedRepository::set_keys(const std::string& role, const std::vector<std::string>& keys,
                                unsigned threshold) {
  json& record = root["roles"][role] = {{"keyids", json::array()}, {"threshold", threshold}};
  for (const std::string& name : keys) {
    record["keyids"].push_back(key(name).id());
    root["keys"][key(name).id()] = key(name).record();
  }
  signers[role] = keys;
}

void SignedRepository::add_target(json& body, const std::string& path, std::string_view content) {
  body["targets"][path] = {{"length", content.size()},
                           {"hashes", {{"sha256", digest(content, "sha256")}}}};
}

json& SignedRepository::delegate(json& delegator, const std::string& name, const json& selector,
                                 bool terminating) {
  json record = {
      {"name", name}, {"terminating", terminating}, {"keyids", {key(name).id()}}, {"threshold", 1}};
  record.update(selector);
  delegator["delegations"]["keys"][key(name).id()] = key(name).record();
  delegator["delegations"]["roles"].push_back(record);
  signers[name] = {name};
  return delegated.emplace(name, empty_body("targets")).first->second;
}

json SignedRepository::sign(const json& body, const std::vector<std::string>& keys) {
  json document = {{"signed", body}, {"signatures", json::array()}};
  for (const std::string& name : keys)
    document["signatures"].push_back(
        {{"keyid", key(name).id()}, {"sig", key(name).sign(canonical_json(body))}});
  return document;
}

const SigningKey& SignedRepository::key(const std::string& name) {
  static std::map<std::string, SigningKey> keys;
  const auto known = keys.find(name);
  if (known != keys.end()) return known->second;
  const KeyType type = name.starts_with("rsa")    ? KeyType::rsa_3072
                       : name.starts_with("root") ? KeyType::ecdsa_p256
                                                  : KeyType::ed25519;
  return keys.emplace(name, SigningKey::generate(type)).first->second;
}

TransportResponse SignedRepository::get(std::string_view path, unsigned long long limit) {
  requests.emplace_back(path);
  const auto file = files.find(requests.back());
  if (file == files.end()) return {404, ""};
  require(file->second.body.size() <= limit, "size_limit", "Too many bytes");
  return file->second;
}

/// Answers how a parent refers to the document.
json SignedRepository::serve(const std::string& role, const json& body,
                             const std::string& version) {
  const std::string bytes = sign(body, signers.at(role)).dump();
  files[version + role + ".json"] = {200, bytes};
  json reference = {{"version", body.at("version")}};
  if (pins) reference["length"] = bytes.size();
  if (pins) reference["hashes"] = {{"sha256", digest(bytes, "sha256")}};
  return reference;
}

}  // namespace tavro
