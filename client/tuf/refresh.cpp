#include <algorithm>
#include <limits>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/safe_path.h"
#include "tuf/threshold.h"
#include "tuf/tuf_state.h"

namespace tavro {
namespace {

constexpr std::size_t kRoleNameBytes = 4096;

unsigned long long version_of(const json& document) {
  return positive_version(document.at("signed").at("version"));
}

const json& authority_of(const json& root, const char* role) {
  return root.at("signed").at("roles").at(role);
}

void verify_by(const json& document, const json& root, const char* role) {
  verify_threshold_by_proved_keys(document, root.at("signed").at("keys"), authority_of(root, role));
}

unsigned long long snapshot_version(const json& timestamp) {
  return positive_version(timestamp.at("signed").at("meta").at("snapshot.json").at("version"));
}

void require_described_bytes(std::string_view bytes, const json& reference) {
  if (reference.contains("length"))
    require(bytes.size() == length(reference), "length_mismatch",
            "Metadata length does not match its parent");
  if (!reference.contains("hashes")) return;
  const json& hashes = reference.at("hashes");
  require(hashes.is_object() && !hashes.empty(), "invalid_hashes",
          "Metadata hashes must be a nonempty object");
  for (const auto& [name, expected] : hashes.items())
    require(expected == digest(bytes, name), "hash_mismatch",
            "Metadata hash does not match its parent");
}

/// A role that was listed once can never disappear, nor go backwards.
void require_no_rollback(const json& stored, const json& snapshot) {
  const json& now = snapshot.at("signed").at("meta");
  for (const auto& [name, before] : stored.at("signed").at("meta").items()) {
    const bool kept = now.contains(name) && positive_version(now.at(name).at("version")) >=
                                                positive_version(before.at("version"));
    require(kept, "rollback", "Snapshot removed or rolled back a known targets role");
  }
}

}  // namespace

void TufClient::Impl::refresh() {
  refreshed = selected_loaded = false;
  pending_snapshot.reset();
  now = clock();
  // A refresh before this one may have failed in the midst of a rotation.
  clear_rotated_state();
  for (unsigned long long taken = 0; taken < limits.root_rotations; ++taken)
    if (!take_next_root()) break;
  // Only after the walk, so that an expired root can still be replaced.
  require_unexpired(root);
  take_timestamp();
  refreshed = true;
}

/// One step along the chain of roots; false at its end.
bool TufClient::Impl::take_next_root() {
  const unsigned long long version = version_of(root);
  require(version < std::numeric_limits<unsigned long long>::max(), "invalid_version",
          "Root version cannot be incremented");
  const unsigned long long next = version + 1;
  const TransportResponse response =
      metadata_transport.get(std::to_string(next) + ".root.json", limits.root_bytes);
  if (response.status == 403 || response.status == 404) return false;
  require(response.status == 200, "http_status", "Could not download next trusted root");

  json candidate = parse_json(response.body, limits.root_bytes);
  shape(candidate, "root");
  verify_by(candidate, root, "root");
  verify_by(candidate, candidate, "root");
  require(version_of(candidate) == next, "rollback",
          "Root version is not exactly the next version");

  const bool rotated = online_keys(root) != online_keys(candidate);
  // The marker comes first: whoever finds the new root without it may trust what the old online
  // keys signed.
  if (rotated) write_rotation_marker(directory, next);
  persist("root", response.body);
  root = std::move(candidate);
  if (rotated) clear_rotated_state();
  return true;
}

void TufClient::Impl::take_timestamp() {
  const TransportResponse response =
      metadata_transport.get("timestamp.json", limits.timestamp_bytes);
  require(response.status == 200, "http_status", "Could not download timestamp metadata");
  json candidate = parse_json(response.body, limits.timestamp_bytes);
  shape(candidate, "timestamp");
  verify_by(candidate, root, "timestamp");

  std::optional<json> stored = local("timestamp");
  if (stored && !supersedes_stored_timestamp(candidate, *stored)) {
    timestamp = std::move(*stored);
    return;
  }
  require_unexpired(candidate);
  if (stored) {
    // A damaged snapshot must fail before the timestamp that outdates it is stored.
    if (const std::optional<json> known = local("snapshot")) shape(*known, "snapshot");
  }
  persist("timestamp", response.body);
  timestamp = std::move(candidate);
  load_selected_metadata();
}

/// False for an equal version: the stored copy wins, whatever the other one says.
bool TufClient::Impl::supersedes_stored_timestamp(const json& candidate, const json& stored) const {
  shape(stored, "timestamp");
  const unsigned long long offered = version_of(candidate), known = version_of(stored);
  require(offered >= known, "rollback", "Timestamp version went backwards");
  if (offered == known) return false;
  require(snapshot_version(candidate) >= snapshot_version(stored), "rollback",
          "Timestamp references an older snapshot");
  return true;
}

void TufClient::Impl::load_selected_metadata() {
  // What an earlier attempt fetched and refused must not be stored by this one.
  pending_snapshot.reset();
  require_unexpired(timestamp);
  const std::optional<json> stored = local("snapshot");
  if (stored) shape(*stored, "snapshot");
  const json& keys = root.at("signed").at("keys");
  snapshot = load_role("snapshot", timestamp.at("signed").at("meta").at("snapshot.json"), keys,
                       authority_of(root, "snapshot"), "snapshot");
  if (stored) require_no_rollback(*stored, snapshot);
  // Stored only now: a bad snapshot must not replace the record that gives it away.
  if (pending_snapshot) persist("snapshot", *pending_snapshot);
  targets = load_role("targets", snapshot.at("signed").at("meta").at("targets.json"), keys,
                      authority_of(root, "targets"), "targets");
  selected_loaded = true;
}

/// The stored copy when it still proves itself, at no request; otherwise a fetched one.
json TufClient::Impl::load_role(std::string_view role, const json& reference, const json& keys,
                                const json& authority, std::string_view type) {
  require(!role.empty() && role.size() <= kRoleNameBytes, "size_limit",
          "Metadata role name exceeds its bound");
  const std::filesystem::path path = role_cache(directory, role);
  if (bears_name(path)) {
    try {
      return verified_role(read_file(path, limits.metadata_bytes), reference, keys, authority,
                           type);
    } catch (const Error&) {
    } catch (const json::exception&) {
    }
    // A stale copy is no failure; it stays until a proved one replaces it.
  }
  std::string body = fetch_role(role, reference);
  json document = verified_role(body, reference, keys, authority, type);
  if (type == "snapshot")
    pending_snapshot = std::move(body);
  else
    persist(role, body);
  return document;
}

std::string TufClient::Impl::fetch_role(std::string_view role, const json& reference) const {
  unsigned long long limit = limits.metadata_bytes;
  if (reference.contains("length")) limit = std::min(limit, length(reference));
  std::string name = std::string(role) + ".json";
  if (root.at("signed").value("consistent_snapshot", false))
    name = std::to_string(positive_version(reference.at("version"))) + "." + name;
  TransportResponse response = metadata_transport.get_component(name, limit);
  require(response.status == 200, "http_status",
          [&] { return "Could not download metadata for role " + std::string(role); });
  return std::move(response.body);
}

json TufClient::Impl::verified_role(std::string_view bytes, const json& reference, const json& keys,
                                    const json& authority, std::string_view type) const {
  require_described_bytes(bytes, reference);
  json document = parse_json(bytes, limits.metadata_bytes);
  shape(document, type);
  verify_threshold_by_proved_keys(document, keys, authority);
  require(version_of(document) == positive_version(reference.at("version")), "version_mismatch",
          "Metadata version does not match its parent");
  require_unexpired(document);
  return document;
}

/// A document that expires at exactly this instant has expired.
void TufClient::Impl::require_unexpired(const json& document) const {
  const auto& expires = document.at("signed").at("expires").get_ref<const std::string&>();
  require(!has_expired(parse_tuf_time(expires), now), "expired_metadata",
          "Repository metadata has expired; previously installed games remain playable");
}

}  // namespace tavro
