#pragma once

#include <set>
#include <string>
#include <vector>

#include "domain/json.h"
#include "publisher/keys.h"
#include "publisher/repository_state.h"

namespace tavro {

/// The private keys at hand. Each document is signed by those that its role lists.
class Signers {
 public:
  explicit Signers(std::vector<SigningKey> keys) : keys_(std::move(keys)) {}

  /// The document with a signature by each key of the list that is at hand.
  json sign(const json& body, const std::set<std::string>& ids);
  /// Whether the keys at hand are enough for this authority.
  bool can_sign(const Authority& authority) const;
  /// Throws `key_unused` when one of the keys has signed nothing: another one was meant.
  void require_all_used() const;

 private:
  std::vector<SigningKey> keys_;
  std::set<std::string> used_;
};

/// The role's document, signed and proved as a client would prove it by each of these authorities.
/// Throws what `shape` throws, and `signature_threshold`.
json signed_document(const std::string& role, const json& body,
                     const std::vector<Authority>& authorities, Signers& signers);

/// What is served of a document. Throws `size_limit` beyond what clients take.
std::string bounded_text(const std::string& role, const json& document);

}  // namespace tavro
