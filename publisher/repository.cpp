#include "publisher/repository.h"

#include <fcntl.h>

#include <algorithm>
#include <chrono>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/relative_path.h"
#include "platform/files/durable_files.h"
#include "platform/host/system_calls.h"
#include "publisher/assembly.h"
#include "publisher/output.h"
#include "tuf/client_limits.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

json empty_body(std::string_view type) {
  return {{"_type", type}, {"spec_version", "1.0.31"}, {"version", 0}};
}

json empty_targets() {
  json body = empty_body("targets");
  body["targets"] = json::object();
  return body;
}

void raise(json& body) { body["version"] = positive_version(body.at("version")) + 1; }

json reference_to(const json& body, const std::string& text) {
  return {{"version", body.at("version")},
          {"length", text.size()},
          {"hashes", {{"sha256", digest(text, "sha256")}}}};
}

template <typename Message>
void require_unexpired(const json& body, Message&& message) {
  const auto expires = parse_tuf_time(body.at("expires").get_ref<const std::string&>());
  require(!has_expired(expires, std::chrono::system_clock::now()), "expired_metadata", message);
}

/// Without these no client would take what is signed beside them.
void require_selected_unexpired(const RepositoryState& state) {
  const std::pair<const char*, const json&> selected[] = {{"snapshot", state.snapshot},
                                                          {"targets", state.roles.at("targets")}};
  for (const auto& [role, body] : selected)
    require_unexpired(body, [role = std::string(role)] {
      return "Role " + role + " has expired; sign it again with repository renew --role " + role;
    });
}

/// The rules of a path, told with the path: a command may name many.
void require_portable(const std::string& path) {
  try {
    validate_relative_path(path, true);
  } catch (const Error& error) {
    fail(error.code, "Cannot publish " + path + ": " + error.what());
  }
}

std::string listed_sha256(const std::string& path, const json& description) {
  const json& hashes = description.at("hashes");
  require(hashes.contains("sha256"), "invalid_hashes",
          [&] { return "The repository lists no SHA-256 of " + path; });
  return hashes.at("sha256").get<std::string>();
}

void make_served_folders(const fs::path& repository) {
  fs::path folder = repository;
  for (const char* name : {"public", "tuf", "metadata"})
    if (system_calls().mkdirat(AT_FDCWD, (folder /= name).c_str(), 0755) != 0)
      transaction_failure(static_cast<unsigned long>(errno), "Cannot make a served folder");
}

}  // namespace

Repository::Repository(const fs::path& folder)
    : folder_(folder),
      lock_(lock_repository(folder)),
      state_(read_repository(folder / served_folder)),
      publication_(folder) {}

Repository::Repository(const fs::path& folder, RepositoryState state)
    : folder_(folder),
      lock_(lock_repository(folder)),
      state_(std::move(state)),
      publication_(folder) {}

RepositoryState Repository::create(const fs::path& place, std::string_view root_bytes,
                                   Signers& signers, const RepositoryExpiry& expiry) {
  const json root = parse_json(root_bytes, client_limits.root_bytes);
  check_root(root);
  const ServedModes modes;
  Assembly assembly(place, {});
  make_served_folders(assembly.folder());
  RepositoryState state{.root = root.at("signed"),
                        .timestamp = empty_body("timestamp"),
                        .snapshot = empty_body("snapshot"),
                        .roles = {{"targets", empty_targets()}}};
  state.snapshot["meta"] = json::object();
  {
    Repository fresh(assembly.folder(), std::move(state));
    fresh.publication_.put(root_name(fresh.state_.root), root_bytes);
    fresh.renew("targets");
    fresh.publish(signers, expiry);
    state = std::move(fresh.state_);
  }
  assembly.publish([](const fs::path& folder) { read_repository(folder / served_folder); });
  return state;
}

json& Repository::role_body(const std::string& role) {
  const auto body = state_.roles.find(role);
  require(body != state_.roles.end(), "unknown_role",
          [&] { return "The repository has no role " + role + " that lists targets"; });
  changed_.insert(role);
  return body->second;
}

/// Under plain names a path has one content, whoever lists it, and is no folder of another one.
void Repository::require_no_conflict(const std::string& role, const std::string& path,
                                     const json& hashes) {
  if (state_.consistent()) return;
  for (const auto& other : state_.roles) {
    const json& targets = other.second.at("targets");
    const auto listed = targets.find(path);
    const bool same =
        other.first == role || listed == targets.end() || listed->at("hashes") == hashes;
    require(same, "target_conflict",
            [&] { return "Role " + other.first + " lists other content as " + path; });
    for (const auto& target : targets.items()) {
      const std::string& name = target.key();
      require(!name.starts_with(path + '/') && !path.starts_with(name + '/'), "target_conflict",
              [&] { return "One of the targets " + name + " and " + path + " would be a folder"; });
    }
  }
}

/// The name of new content of a path, if the role may have it.
std::string Repository::served_name(const std::string& role, const std::string& path,
                                    const std::string& sha256) {
  require_no_conflict(role, path, {{"sha256", sha256}});
  std::string name = target_name(state_, path, sha256);
  require_portable(name);
  return name;
}

std::string Repository::put_target(const std::string& role, const std::string& path,
                                   const fs::path& file, const Progress& progress) {
  require_portable(path);
  json& body = role_body(role);
  require_delegated(state_, role, path);
  const json description = publication_.put_target(
      file, [&](const std::string& sha256) { return served_name(role, path, sha256); }, progress);
  body["targets"][path] = description;
  return description.at("hashes").at("sha256");
}

void Repository::put_target(const std::string& role, const std::string& path,
                            std::string_view bytes) {
  require_portable(path);
  json& body = role_body(role);
  require_delegated(state_, role, path);
  body["targets"][path] = publication_.put_target(
      bytes, [&](const std::string& sha256) { return served_name(role, path, sha256); });
}

std::string Repository::read_target(const std::string& path, unsigned long long max_bytes) const {
  const std::optional<ListedTarget> listed = look_up(state_, path);
  require(listed.has_value(), "target_not_found",
          [&] { return "The repository lists no target " + path; });
  const std::string sha256 = listed_sha256(path, listed->description);
  std::string bytes = publication_.read(target_name(state_, path, sha256), max_bytes);
  require(digest(bytes, "sha256") == sha256, "content_mismatch",
          [&] { return "The repository serves other content than it lists: " + path; });
  return bytes;
}

void Repository::remove_target(const std::string& role, const std::string& path) {
  require(role_body(role).at("targets").erase(path) == 1, "target_not_found",
          [&] { return "Role " + role + " lists no target " + path; });
}

void Repository::delegate(const std::string& delegator, const Delegation& delegation) {
  const std::string& name = delegation.name;
  require_role_name(name);
  json& body = role_body(delegator);
  const std::string present = delegator_of(state_, name);
  require(present.empty() || present == delegator, "invalid_role",
          [&] { return "Role " + name + " is delegated by " + present + " already"; });
  put_delegation(body, delegation);
  if (present.empty()) {
    require(state_.roles.size() < client_limits.delegated_roles, "size_limit", [] {
      return "Clients visit at most " + std::to_string(max_delegated_roles) + " delegated roles";
    });
    // A role that comes back goes on where it ended: clients remember its version.
    json fresh = empty_targets();
    const json& meta = state_.snapshot.at("meta");
    if (meta.contains(name + ".json")) fresh["version"] = meta.at(name + ".json").at("version");
    state_.roles[name] = std::move(fresh);
  }
  changed_.insert(name);
}

void Repository::undelegate(const std::string& role) {
  const std::string delegator = delegator_of(state_, role);
  require(!delegator.empty(), "unknown_role",
          [&] { return "The repository has no delegated role " + role; });
  const bool leaf = !state_.roles.at(role).contains("delegations") ||
                    state_.roles.at(role).at("delegations").at("roles").empty();
  require(leaf, "invalid_role", [&] { return "Role " + role + " delegates itself"; });
  erase_delegation(role_body(delegator), role);
  state_.roles.erase(role);
  changed_.erase(role);
}

void Repository::renew(const std::string& role) {
  require(role != "root", "unknown_role", "A root is signed again with repository rotate");
  if (role == "timestamp" || role == "snapshot")
    changed_.insert(role);
  else
    role_body(role);
}

void Repository::rotate(const RootRequest& request) {
  json next = root_body(request);
  next["version"] = state_.root.at("version");
  raise(next);
  for (const char* role : {"targets", "snapshot", "timestamp"})
    if (next.at("roles").at(role) != state_.root.at("roles").at(role)) changed_.insert(role);
  next_root_ = std::move(next);
}

std::string Repository::signed_text(const std::string& role, const json& body, Signers& signers) {
  const json document = signed_document(role, body, {authority_of(state_, role)}, signers);
  require_unexpired(body,
                    [&] { return "What role " + role + " signs would have expired already"; });
  return bounded_text(role, document);
}

/// Signed by the old root keys and the new ones; from here on the new ones count.
void Repository::publish_root(Signers& signers) {
  const auto authority = [](const json& root) {
    return Authority{root.at("roles").at("root"), root.at("keys")};
  };
  const json document = signed_document("root", *next_root_,
                                        {authority(state_.root), authority(*next_root_)}, signers);
  check_root(document);
  publication_.put(root_name(*next_root_), bounded_text("root", document));
  state_.root = std::move(*next_root_);
  next_root_.reset();
}

void Repository::publish_role(const std::string& role, Signers& signers,
                              const std::string& expires) {
  json& body = role == "snapshot" ? state_.snapshot : state_.roles.at(role);
  body["version"] = body.at("version").get<unsigned long long>() + 1;
  body["expires"] = expires;
  const std::string text = signed_text(role, body, signers);
  publication_.put(document_name(state_, role, body.at("version")), text);
  json& parent = role == "snapshot" ? state_.timestamp : state_.snapshot;
  parent["meta"][role + ".json"] = reference_to(body, text);
}

void Repository::publish(Signers& signers, const RepositoryExpiry& expiry) {
  if (next_root_) publish_root(signers);
  require_unexpired(state_.root, [] {
    return std::string("The root has expired; publish the next one with repository rotate");
  });
  const bool selected =
      std::ranges::any_of(changed_, [](auto& role) { return role != "timestamp"; });
  for (const std::string& role : changed_)
    if (state_.roles.contains(role)) publish_role(role, signers, expiry.targets);
  if (selected) publish_role("snapshot", signers, expiry.snapshot);
  if (!changed_.empty()) {
    json& body = state_.timestamp;
    body["version"] = body.at("version").get<unsigned long long>() + 1;
    body["expires"] = expiry.timestamp;
    publication_.put(timestamp_name(), signed_text("timestamp", body, signers));
    require_selected_unexpired(state_);
  }
  signers.require_all_used();
  publication_.commit();
  changed_.clear();
}

std::size_t Repository::prune() {
  std::set<std::string> named = {timestamp_name(),
                                 document_name(state_, "snapshot", state_.snapshot.at("version"))};
  for (const auto& [file, reference] : state_.snapshot.at("meta").items())
    named.insert(document_name(state_, file.substr(0, file.size() - 5), reference.at("version")));
  for (const auto& [role, body] : state_.roles)
    for (const auto& [path, description] : body.at("targets").items())
      named.insert(
          target_name(state_, path, description.at("hashes").at("sha256").get<std::string>()));
  return remove_served(folder_, [&](std::string_view name) {
    return is_root_name(name) || named.contains(std::string(name));
  });
}

}  // namespace tavro
