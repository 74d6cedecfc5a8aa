#include "publisher/check.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "domain/crypto.h"
#include "domain/input.h"
#include "platform/files.h"
#include "platform/tree.h"
#include "publisher/client_limits.h"
#include "publisher/publication.h"
#include "publisher/repository_state.h"
#include "transport/https.h"
#include "tuf/threshold.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// A private folder for one check; gone afterwards.
class Scratch {
 public:
  Scratch() : path_(fs::temp_directory_path() / ("tavro-check-" + random_id())) {
    private_directory(path_);
  }
  Scratch(Scratch&&) = delete;
  ~Scratch() { remove_path_quietly(path_); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

std::string below(std::string url, std::string_view folder) {
  if (!url.ends_with('/')) url += '/';
  return url + std::string(folder) + '/';
}

/// What the client has proved and stored of a role.
json stored(const fs::path& trust, const std::string& file) {
  return parse_json(read_file(trust / file, client_limits.metadata_bytes),
                    client_limits.metadata_bytes)
      .at("signed");
}

json validity(const json& body) {
  return {{"version", body.at("version")}, {"expires", body.at("expires")}};
}

/// The top-level roles, and the delegated ones that a look-up went through.
json proved_roles(const fs::path& trust) {
  json roles;
  for (const std::string role : {"root", "timestamp", "snapshot", "targets"})
    roles[role] = validity(stored(trust, role + ".json"));
  const json snapshot = stored(trust, "snapshot.json");
  for (const auto& [file, reference] : snapshot.at("meta").items()) {
    const std::string role = file.substr(0, file.rfind(".json"));
    const std::string cache = "delegated-" + digest(role, "sha256") + ".json";
    if (role != "targets" && fs::exists(trust / cache))
      roles[role] = validity(stored(trust, cache));
  }
  return roles;
}

std::string earliest_expiry(const json& roles) {
  std::vector<std::string> all;
  for (const json& role : roles) all.push_back(role.at("expires"));
  return *std::ranges::min_element(all, {}, parse_tuf_time);
}

/// Brings the target in as it would be brought to a user, and proves its bytes.
void download(Transport& targets, const fs::path& scratch, const std::string& path,
              const json& description, const Progress& progress) {
  RepositoryState state;
  state.root = stored(scratch / "trust", "root.json");
  const auto hash = description.at("hashes").begin()->get<std::string>();
  const std::string name = target_name(state, path, hash).substr(targets_folder.size() + 1);
  const fs::path file = scratch / "targets" / random_id();
  targets.download(name, file, length(description), progress);
  verify_target_file(file, description, progress);
  fs::remove(file);
}

}  // namespace

json check_repository(const CheckRequest& request, Transport& metadata, Transport& targets,
                      const Progress& progress) {
  const Scratch scratch;
  const fs::path trust = scratch.path() / "trust";
  TufClient::initialize(trust, read_file(request.root, client_limits.root_bytes));
  TufClient client(trust, metadata, targets, client_limits, std::chrono::system_clock::now);
  client.refresh();
  json found = json::array();
  for (const std::string& path : request.targets) {
    const json description = client.target(path);
    if (request.download) download(targets, scratch.path(), path, description, progress);
    found.push_back({{"path", path},
                     {"length", description.at("length")},
                     {"hashes", description.at("hashes")}});
  }
  json roles = proved_roles(trust);
  return {{"url", request.url},
          {"trusted_until", earliest_expiry(roles)},
          {"roles", std::move(roles)},
          {"targets", std::move(found)}};
}

json check_repository(const CheckRequest& request, const Progress& progress) {
  HttpsTransport metadata(below(request.url, metadata_folder), request.ca_bundle, 0, nullptr);
  HttpsTransport targets(below(request.url, targets_folder), request.ca_bundle, 0, nullptr);
  return check_repository(request, metadata, targets, progress);
}

}  // namespace tavro
