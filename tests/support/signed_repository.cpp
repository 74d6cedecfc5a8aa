#include "support/signed_repository.h"

#include "domain/crypto.h"
#include "domain/error.h"
#include "publisher/keys.h"

namespace tavro {
namespace {

const SigningKey& signing_key(const std::string& name) {
  static std::map<std::string, SigningKey> keys;
  const auto known = keys.find(name);
  if (known != keys.end()) return known->second;
  const bool ecdsa = name.starts_with("root") || name.starts_with("targets");
  const KeyType type = name.starts_with("rsa") ? KeyType::rsa_3072
                       : ecdsa                 ? KeyType::ecdsa_p256
                                               : KeyType::ed25519;
  return keys.emplace(name, SigningKey::generate(type)).first->second;
}

json empty_body(const char* role) {
  return {{"_type", role},
          {"spec_version", "1.0.31"},
          {"version", 1},
          {"expires", "2040-01-01T00:00:00Z"}};
}

void raise(json& body) { body["version"] = body.at("version").get<unsigned long long>() + 1; }

std::string version_text(const json& body) { return body.at("version").dump(); }

}  // namespace

SignedRepository::SignedRepository()
    : root(empty_body("root")),
      timestamp(empty_body("timestamp")),
      snapshot(empty_body("snapshot")),
      targets(empty_body("targets")) {
  root["consistent_snapshot"] = true;
  root["keys"] = json::object();
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) set_keys(role, {role});
  targets["targets"] = json::object();
  publish();
}

void SignedRepository::publish() {
  json references = json::object();
  references["targets.json"] = reference(targets, serve("targets", targets, true));
  for (const auto& [name, body] : delegated)
    references[name + ".json"] = reference(body, serve(name, body, true));
  snapshot["meta"] = references;
  timestamp["meta"] = {{"snapshot.json", reference(snapshot, serve("snapshot", snapshot, true))}};
  serve("timestamp", timestamp, false);
}

void SignedRepository::publish_update() {
  raise(targets);
  raise(snapshot);
  raise(timestamp);
  publish();
}

void SignedRepository::publish_root() {
  raise(root);
  files[version_text(root) + ".root.json"] = {200, root_bytes()};
}

std::string SignedRepository::root_bytes() const { return sign(root, signers.at("root")).dump(); }

void SignedRepository::set_keys(const std::string& role, const std::vector<std::string>& keys,
                                unsigned threshold) {
  json ids = json::array();
  for (const std::string& key : keys) {
    ids.push_back(key_id(key));
    root["keys"][key_id(key)] = key_record(key);
  }
  root["roles"][role] = {{"keyids", ids}, {"threshold", threshold}};
  signers[role] = keys;
}

void SignedRepository::add_target(json& body, const std::string& path, std::string_view content) {
  body["targets"][path] = {{"length", content.size()},
                           {"hashes", {{"sha256", digest(content, "sha256")}}}};
}

json& SignedRepository::delegate(json& delegator, const std::string& name, const json& selector,
                                 bool terminating) {
  json record = selector;
  record["name"] = name;
  record["terminating"] = terminating;
  record["keyids"] = {key_id(name)};
  record["threshold"] = 1;
  delegator["delegations"]["keys"][key_id(name)] = key_record(name);
  delegator["delegations"]["roles"].push_back(record);
  signers[name] = {name};
  const auto [entry, added] = delegated.emplace(name, empty_body("targets"));
  if (added) entry->second["targets"] = json::object();
  return entry->second;
}

json SignedRepository::sign(const json& body, const std::vector<std::string>& keys) {
  json signatures = json::array();
  for (const std::string& key : keys)
    signatures.push_back(
        {{"keyid", key_id(key)}, {"sig", signing_key(key).sign(canonical_json(body))}});
  return {{"signed", body}, {"signatures", signatures}};
}

const json& SignedRepository::key_record(const std::string& name) {
  return signing_key(name).record();
}

const std::string& SignedRepository::key_id(const std::string& name) {
  return signing_key(name).id();
}

TransportResponse SignedRepository::get(std::string_view path, unsigned long long limit) {
  requests.emplace_back(path);
  const auto file = files.find(std::string(path));
  if (file == files.end()) return {404, ""};
  require(file->second.body.size() <= limit, "size_limit",
          "Server sent more than the authenticated size limit");
  return file->second;
}

void SignedRepository::download(std::string_view, const std::filesystem::path&, unsigned long long,
                                const Progress&) {
  fail("network", "This repository serves metadata only");
}

json SignedRepository::reference(const json& body, const std::string& bytes) const {
  json result = {{"version", body.at("version")}};
  if (!pins) return result;
  result["length"] = bytes.size();
  result["hashes"] = {{"sha256", digest(bytes, "sha256")}};
  return result;
}

std::string SignedRepository::serve(const std::string& role, const json& body, bool versioned) {
  const std::string bytes = sign(body, signers.at(role)).dump();
  const bool consistent = versioned && root.at("consistent_snapshot").get<bool>();
  files[(consistent ? version_text(body) + "." : "") + role + ".json"] = {200, bytes};
  return bytes;
}

}  // namespace tavro
