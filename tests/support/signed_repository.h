#pragma once

#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.h"
#include "publisher/keys.h"
#include "transport/transport.h"

namespace tavro {

/// A repository that lives in memory and is its own transport. A test changes the signed bodies as
/// it likes, signs them anew with `publish`, and lets a client ask; every request is kept.
///
/// At first each role is signed by one key of its own name, at version 1 and good until 2040. Keys
/// come into being at their first use and are shared by all repositories of the process: "root..."
/// is P-256, "rsa..." is RSA, every other name Ed25519.
class SignedRepository : public Transport {
 public:
  SignedRepository();

  /// The signed bodies, those of delegated roles by name.
  json root, timestamp, snapshot, targets;
  std::map<std::string, json> delegated;
  /// Names of the keys that sign each role, top-level or delegated.
  std::map<std::string, std::vector<std::string>> signers;
  /// Whether parents name length and hash of what they describe.
  bool pins = true;
  /// Everything served, by remote name, and the names asked for; what is not here answers 404.
  std::map<std::string, TransportResponse> files;
  std::vector<std::string> requests;

  /// Signs everything and serves it, from the targets up to the timestamp.
  void publish();
  /// Raises the versions of targets, snapshot and timestamp by one, and publishes.
  void publish_update();
  /// Signs the root and serves it as the next one of the chain. The root that a package carries is
  /// `root_bytes` before any call of this.
  void publish_root();
  std::string root_bytes() const { return sign(root, signers.at("root")).dump(); }

  /// Gives a top-level role these keys, in the root and for signing.
  void set_keys(const std::string& role, const std::vector<std::string>& keys,
                unsigned threshold = 1);
  /// The description of these bytes, put into a `targets` or delegated body under this path.
  void add_target(json& body, const std::string& path, std::string_view content);
  /// Adds a delegated role without targets, signed by a key of its own name, and the record for it
  /// to the delegations of `delegator`; returns the body. `selector` is `paths` or
  /// `path_hash_prefixes` with its array.
  json& delegate(json& delegator, const std::string& name, const json& selector,
                 bool terminating = false);

  /// A whole document: the body with a signature by each of these keys.
  static json sign(const json& body, const std::vector<std::string>& keys);
  static const SigningKey& key(const std::string& name);

  TransportResponse get(std::string_view path, unsigned long long limit) override;
  void download(std::string_view, const std::filesystem::path&, unsigned long long,
                const Progress&) override {
    fail("network", "This repository serves metadata only");
  }

 private:
  json serve(const std::string& role, const json& body, const std::string& version);
};

}  // namespace tavro
