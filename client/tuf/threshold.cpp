#include "tuf/threshold.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "tuf/metadata.h"

namespace tavro {
namespace {

constexpr std::size_t kKeyBytes = 16384;
constexpr std::size_t kPatternBytes = 4096;

bool has_key_shape(const json& key) {
  const auto holds_string = [](const json& object, const char* name) {
    return object.contains(name) && object.at(name).is_string();
  };
  return key.is_object() && holds_string(key, "keytype") && holds_string(key, "scheme") &&
         key.contains("keyval") && key.at("keyval").is_object() &&
         holds_string(key.at("keyval"), "public");
}

void require_authority(const json& keys, const json& authority) {
  const bool listed =
      authority.is_object() && authority.contains("keyids") && authority.at("keyids").is_array();
  require(keys.is_object() && listed, "invalid_metadata", "Invalid signing authority");
}

/// Positions of the path that the pattern read so far can reach; index j is true when the first j
/// bytes of the path are consumed.
using Reached = std::vector<unsigned char>;

/// One element of a pattern that consumes exactly one byte.
template <typename Matches>
void step(const Reached& current, Reached& next, std::string_view path, Matches&& matches) {
  next[0] = 0;
  for (std::size_t j = 0; j < path.size(); ++j) next[j + 1] = current[j] && matches(path[j]);
}

void step_run(const Reached& current, Reached& next, std::string_view path) {
  next[0] = current[0];
  for (std::size_t j = 0; j < path.size(); ++j)
    next[j + 1] = current[j + 1] || (next[j] && path[j] != '/');
}

/// The members of a class, spread out so that a long class costs no more than a byte a step.
class ByteClass {
 public:
  explicit ByteClass(std::string_view body) {
    negated_ = body.front() == '!' || body.front() == '^';
    if (negated_) body.remove_prefix(1);
    while (!body.empty()) {
      const bool range = body.size() > 2 && body[1] == '-';
      add(body[0], body[range ? 2 : 0]);
      body.remove_prefix(range ? 3 : 1);
    }
  }

  bool matches(char byte) const {
    return byte != '/' && members_[static_cast<unsigned char>(byte)] != negated_;
  }

 private:
  // The order of signed bytes holds on machines whose plain char has no sign, too.
  void add(char first, char last) {
    for (int value = static_cast<signed char>(first); value <= static_cast<signed char>(last);
         ++value)
      members_[static_cast<unsigned char>(value)] = true;
  }

  bool members_[256] = {};
  bool negated_ = false;
};

}  // namespace

void verify_keys(const json& keys) {
  require(keys.is_object(), "invalid_metadata", "Signing keys must be an object");
  for (const auto& [id, key] : keys.items()) {
    require(has_key_shape(key), "invalid_metadata", "Invalid signing key shape");
    require(id == digest(canonical_json(key), "sha256"), "keyid_mismatch",
            "Signing key ID does not identify its canonical key");
    require(key.at("keyval").at("public").get_ref<const std::string&>().size() <= kKeyBytes,
            "size_limit", "Signing key exceeds its size limit");
  }
}

void verify_threshold(const json& document, const json& keys, const json& authority) {
  require_authority(keys, authority);
  verify_keys(keys);
  verify_threshold_by_proved_keys(document, keys, authority);
}

void verify_threshold_by_proved_keys(const json& document, const json& keys,
                                     const json& authority) {
  require_authority(keys, authority);
  const unsigned long long threshold = positive_version(authority.at("threshold"));
  std::set<std::string> authorized;
  for (const json& id : authority.at("keyids")) authorized.insert(id.get<std::string>());
  require(threshold <= authorized.size(), "invalid_threshold",
          "Signing threshold exceeds unique authorized keys");

  const std::string message = canonical_json(document.at("signed"));
  std::set<std::string> accepted;
  for (const json& signature : document.at("signatures")) {
    const auto& id = signature.at("keyid").get_ref<const std::string&>();
    if (accepted.contains(id) || !authorized.contains(id) || !keys.contains(id)) continue;
    if (verify_signature(keys.at(id), message, signature.at("sig").get_ref<const std::string&>()))
      accepted.insert(id);
  }
  require(accepted.size() >= threshold, "signature_threshold",
          "Metadata does not meet its authorized signature threshold");
}

void verify_target_file(const std::filesystem::path& path, const json& description,
                        const Progress& progress) {
  std::error_code error;
  require(std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error)),
          "unsafe_path", "Target is not an ordinary file");
  const auto size = std::filesystem::file_size(path, error);
  require(!error && size == length(description), "length_mismatch",
          "Target length does not match signed metadata");
  const bool hashed = description.contains("hashes") && description.at("hashes").is_object() &&
                      !description.at("hashes").empty();
  require(hashed, "invalid_hashes", "Target has no authenticated hashes");
  for (const auto& [name, expected] : description.at("hashes").items())
    require(expected == digest_file_progress(path, name, progress), "hash_mismatch",
            "Target hash does not match signed metadata");
}

bool path_pattern_matches(std::string_view pattern, std::string_view path) {
  require(pattern.size() <= kPatternBytes && path.size() <= kPatternBytes, "size_limit",
          "Delegation pattern exceeds path limit");
  Reached current(path.size() + 1), next(path.size() + 1);
  current[0] = 1;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const char element = pattern[i];
    // The body of a class holds at least one byte: a bracket right behind the opening one.
    const std::size_t closing = element == '[' ? pattern.find(']', i + 2) : std::string_view::npos;
    if (element == '*') {
      step_run(current, next, path);
    } else if (element == '?') {
      step(current, next, path, [](char byte) { return byte != '/'; });
    } else if (closing != std::string_view::npos) {
      const ByteClass members(pattern.substr(i + 1, closing - i - 1));
      step(current, next, path, [&](char byte) { return members.matches(byte); });
      i = closing;
    } else {
      step(current, next, path, [element](char byte) { return byte == element; });
    }
    current.swap(next);
  }
  return current.back() != 0;
}

}  // namespace tavro
