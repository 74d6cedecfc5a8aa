#include "publisher/signing.h"

#include <nlohmann/json.hpp>

#include "domain/error.h"
#include "publisher/output.h"
#include "publisher/root_metadata.h"
#include "tuf/client_limits.h"
#include "tuf/metadata.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

std::string type_of(const std::string& role) {
  const bool other = role == "root" || role == "timestamp" || role == "snapshot";
  return other ? role : "targets";
}

unsigned long long limit_of(const std::string& role) {
  if (role == "root") return client_limits.root_bytes;
  return role == "timestamp" ? client_limits.timestamp_bytes : client_limits.metadata_bytes;
}

/// What a client proves of a document that this authority has signed.
void require_signed(const std::string& role, const json& document, const Authority& authority) {
  std::size_t signers = 0;
  const std::set<std::string> ids = ids_of(authority.record);
  for (const json& signature : document.at("signatures"))
    signers += ids.contains(signature.at("keyid").get_ref<const std::string&>()) ? 1 : 0;
  const unsigned long long needed = positive_version(authority.record.at("threshold"));
  require(signers >= needed, "signature_threshold", [&] {
    return "Role " + role + " needs " + std::to_string(needed) + " of its keys, and " +
           std::to_string(signers) + " are given";
  });
  verify_threshold_by_proved_keys(document, authority.keys, authority.record);
}

}  // namespace

bool Signers::can_sign(const Authority& authority) const {
  const std::set<std::string> listed = ids_of(authority.record);
  std::set<std::string> at_hand;
  for (const SigningKey& key : keys_)
    if (listed.contains(key.id())) at_hand.insert(key.id());
  return at_hand.size() >= positive_version(authority.record.at("threshold"));
}

json Signers::sign(const json& body, const std::set<std::string>& ids) {
  std::vector<const SigningKey*> chosen;
  for (const SigningKey& key : keys_)
    if (ids.contains(key.id())) {
      chosen.push_back(&key);
      used_.insert(key.id());
    }
  return sign_metadata(body, chosen);
}

void Signers::require_all_used() const {
  for (const SigningKey& key : keys_)
    require(used_.contains(key.id()), "key_unused",
            [&] { return "No role that is signed now lists the key " + key.id(); });
}

json signed_document(const std::string& role, const json& body,
                     const std::vector<Authority>& authorities, Signers& signers) {
  std::set<std::string> ids;
  for (const Authority& authority : authorities) ids.merge(ids_of(authority.record));
  json document = signers.sign(body, ids);
  shape(document, type_of(role));
  for (const Authority& authority : authorities) require_signed(role, document, authority);
  return document;
}

std::string bounded_text(const std::string& role, const json& document) {
  std::string text = document_text(document);
  require(text.size() <= limit_of(role), "size_limit", [&] {
    return "Role " + role + " would sign " + std::to_string(text.size()) +
           " bytes; clients take at most " + std::to_string(limit_of(role));
  });
  return text;
}

}  // namespace tavro
