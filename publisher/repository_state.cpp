#include "publisher/repository_state.h"

#include <algorithm>
#include <charconv>
#include <set>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/relative_path.h"
#include "publisher/publication.h"
#include "tuf/client_limits.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

const json* delegation_in(const json& body, std::string_view role) {
  if (!body.contains("delegations")) return nullptr;
  for (const json& record : body.at("delegations").at("roles"))
    if (record.at("name") == role) return &record;
  return nullptr;
}

bool selects(const json& record, std::string_view path) {
  if (record.contains("paths"))
    return std::ranges::any_of(record.at("paths"), [&](const json& pattern) {
      return path_pattern_matches(pattern.get_ref<const std::string&>(), path);
    });
  const std::string hash = digest(path, "sha256");
  return std::ranges::any_of(record.at("path_hash_prefixes"), [&](const json& prefix) {
    return hash.starts_with(prefix.get_ref<const std::string&>());
  });
}

/// One look-up: what was visited, and whether a terminating role has ended it.
struct LookUp {
  const RepositoryState& state;
  std::string_view path;
  std::set<std::string, std::less<>> visited = {};
  bool ended = false;

  std::optional<ListedTarget> in(const std::string& role) {
    if (!visited.insert(role).second) return std::nullopt;
    const json& body = state.roles.at(role);
    const auto own = body.at("targets").find(path);
    if (own != body.at("targets").end()) return ListedTarget{role, *own};
    if (!body.contains("delegations")) return std::nullopt;
    for (const json& record : body.at("delegations").at("roles")) {
      if (!selects(record, path)) continue;
      std::optional<ListedTarget> found = in(record.at("name").get_ref<const std::string&>());
      if (found || ended) return found;
      ended = record.at("terminating").get<bool>();
      if (ended) return std::nullopt;
    }
    return std::nullopt;
  }
};

struct Document {
  json whole;
  std::string bytes;
  const json& body() const { return whole.at("signed"); }
};

Document read_document(const fs::path& path, unsigned long long limit, std::string_view type) {
  Document document;
  document.bytes = read_file(path, limit);
  document.whole = parse_json(document.bytes, limit);
  shape(document.whole, type);
  return document;
}

void verify_by_root(const json& document, const json& root, const char* role) {
  verify_threshold_by_proved_keys(document, root.at("keys"), root.at("roles").at(role));
}

/// The versions of the roots that are served, each "N.root.json".
std::set<unsigned long long> root_versions(const fs::path& folder) {
  std::set<unsigned long long> versions;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = path_utf8(entry.path().filename());
    unsigned long long version = 0;
    const auto [end, problem] = std::from_chars(name.data(), name.data() + name.size(), version);
    const bool root = problem == std::errc() && std::string_view(end) == ".root.json";
    if (root) versions.insert(version);
  }
  return versions;
}

/// The newest root, proved from the oldest one along the chain.
json read_roots(const fs::path& folder) {
  json newest;
  for (const unsigned long long version : root_versions(folder)) {
    const Document next = read_document(folder / (std::to_string(version) + ".root.json"),
                                        client_limits.root_bytes, "root");
    const bool follows = newest.is_null() || newest.at("version") == version - 1;
    require(next.body().at("version") == version && follows, "invalid_repository",
            "The chain of roots has a gap");
    if (!newest.is_null()) verify_by_root(next.whole, newest, "root");
    verify_by_root(next.whole, next.body(), "root");
    newest = next.body();
  }
  require(!newest.is_null(), "invalid_repository",
          [&] { return "There is no root in " + path_utf8(folder); });
  return newest;
}

/// A document that another one refers to.
json read_described(const fs::path& path, const json& reference, std::string_view type,
                    const Authority& authority) {
  const Document document = read_document(path, client_limits.metadata_bytes, type);
  if (reference.contains("hashes"))
    for (const auto& [name, expected] : reference.at("hashes").items())
      require(expected == digest(document.bytes, name), "hash_mismatch",
              [&] { return "Metadata differs from its parent: " + path_utf8(path); });
  require(document.body().at("version") == reference.at("version"), "version_mismatch",
          [&] { return "Metadata differs from its parent: " + path_utf8(path); });
  // The analyser takes the references of a returned structure for null.
  // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker)
  verify_threshold_by_proved_keys(document.whole, authority.keys, authority.record);
  return document.body();
}

void read_role(RepositoryState& state, const fs::path& served, const std::string& role,
               const Authority& authority) {
  require(state.roles.size() < client_limits.delegated_roles, "size_limit",
          "The repository has more roles than a client would visit");
  const json& known = state.snapshot.at("meta");
  const auto reference = known.find(role + ".json");
  require(reference != known.end(), "invalid_repository",
          [&] { return "The snapshot does not list role " + role; });
  const fs::path path = served / document_name(state, role, reference->at("version"));
  const json& body =
      state.roles.emplace(role, read_described(path, *reference, "targets", authority))
          .first->second;
  if (!body.contains("delegations")) return;
  const json& delegations = body.at("delegations");
  for (const json& record : delegations.at("roles")) {
    const auto name = record.at("name").get<std::string>();
    if (!state.roles.contains(name))
      read_role(state, served, name, {record, delegations.at("keys")});
  }
}

}  // namespace

std::set<std::string> ids_of(const json& record) {
  return record.at("keyids").get<std::set<std::string>>();
}

bool is_top_level(std::string_view role) {
  return role == "root" || role == "timestamp" || role == "snapshot" || role == "targets";
}

Authority authority_of(const RepositoryState& state, std::string_view role) {
  if (is_top_level(role))
    return {state.root.at("roles").at(std::string(role)), state.root.at("keys")};
  const std::string delegator = delegator_of(state, role);
  require(!delegator.empty(), "unknown_role",
          [&] { return "The repository has no role " + std::string(role); });
  const json& body = state.roles.at(delegator);
  return {*delegation_in(body, role), body.at("delegations").at("keys")};
}

std::string delegator_of(const RepositoryState& state, std::string_view role) {
  for (const auto& [name, body] : state.roles)
    if (delegation_in(body, role) != nullptr) return name;
  return {};
}

void require_delegated(const RepositoryState& state, std::string_view role, std::string_view path) {
  std::string current(role);
  while (current != "targets") {
    require(selects(authority_of(state, current).record, path), "target_not_delegated", [&] {
      return "The delegation to " + current + " does not select " + std::string(path);
    });
    current = delegator_of(state, current);
  }
}

std::optional<ListedTarget> look_up(const RepositoryState& state, std::string_view path) {
  return LookUp{state, path}.in("targets");
}

std::string root_name(const json& body) {
  return std::string(metadata_folder) + '/' + body.at("version").dump() + ".root.json";
}

std::string timestamp_name() { return std::string(metadata_folder) + "/timestamp.json"; }

std::string document_name(const RepositoryState& state, std::string_view role,
                          const json& version) {
  const std::string prefix = state.consistent() ? version.dump() + '.' : std::string();
  const std::string name = prefix + std::string(role) + ".json";
  // A delegator names its roles as it likes, and no name may lead out of the folder.
  validate_relative_path(name, false);
  return std::string(metadata_folder) + '/' + name;
}

std::string target_name(const RepositoryState& state, std::string_view path,
                        std::string_view sha256) {
  std::string name(path);
  // The hash stands in front of the last component, so that a folder keeps its name.
  if (state.consistent()) name.insert(name.rfind('/') + 1, std::string(sha256) + '.');
  return std::string(targets_folder) + '/' + name;
}

RepositoryState read_repository(const fs::path& served) {
  require(fs::is_directory(served / metadata_folder), "invalid_repository",
          [&] { return "There is no repository in " + path_utf8(served.parent_path()); });
  RepositoryState state;
  state.root = read_roots(served / metadata_folder);
  const Document timestamp =
      read_document(served / timestamp_name(), client_limits.timestamp_bytes, "timestamp");
  verify_by_root(timestamp.whole, state.root, "timestamp");
  state.timestamp = timestamp.body();
  const json& reference = state.timestamp.at("meta").at("snapshot.json");
  const Authority authority = authority_of(state, "snapshot");
  state.snapshot =
      read_described(served / document_name(state, "snapshot", reference.at("version")), reference,
                     "snapshot", authority);
  read_role(state, served, "targets", authority_of(state, "targets"));
  return state;
}

}  // namespace tavro
