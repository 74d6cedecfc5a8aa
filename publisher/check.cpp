#include "publisher/check.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>

#include "domain/crypto.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "publisher/publication.h"
#include "transport/https.h"
#include "tuf/client_limits.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// A private folder for one check; gone afterwards.
class Scratch {
 public:
  explicit Scratch(const fs::path& place) : path_(place / ("tavro-check-" + random_id())) {
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

/// Brings targets in as they would be brought to a user, with all that a client proves.
class Downloads {
 public:
  Downloads(TufClient& client, const fs::path& folder, const fs::path& scratch)
      : client_(client), kept_(!folder.empty()), place_((kept_ ? folder : scratch) / "targets") {
    if (kept_) lock_.emplace(folder / ".lock", false, LockMode::exclusive);
  }

  /// What to tell of the target beside its description.
  void bring_in(json& target, const Progress& progress) {
    unsigned long long at_hand = 0;
    const auto weigh = [&](const DownloadAdmission& state) {
      at_hand = state.complete ? length(target) : state.written;
    };
    const fs::path file =
        client_.download(target.at("path").get_ref<const std::string&>(), place_, progress, {},
                         {.resume_scope = kept_ ? "tavro-publish check" : "", .admission = weigh});
    if (!kept_) {
      fs::remove(file);
      return;
    }
    target["file"] = path_utf8(file);
    target["at_hand"] = at_hand;
  }

 private:
  TufClient& client_;
  bool kept_;
  fs::path place_;
  /// Two runs would write to the same partial file.
  std::optional<FileLock> lock_;
};

}  // namespace

json check_repository(const CheckRequest& request, Transport& metadata, Transport& targets,
                      const Progress& progress) {
  const Scratch scratch(fs::temp_directory_path());
  const fs::path trust = scratch.path() / "trust";
  TufClient::initialize(trust, read_file(request.root, client_limits.root_bytes));
  TufClient client(trust, metadata, targets, client_limits, std::chrono::system_clock::now);
  Downloads downloads(client, request.folder, scratch.path());
  client.refresh();
  json found = json::array();
  for (const std::string& path : request.targets) {
    const json description = client.target(path);
    found.push_back({{"path", path},
                     {"length", description.at("length")},
                     {"hashes", description.at("hashes")}});
    if (request.download) downloads.bring_in(found.back(), progress);
  }
  json document = {{"url", request.url}, {"targets", std::move(found)}};
  if (request.games) {
    const Scratch work(request.folder.empty() ? scratch.path() : request.folder);
    document["games"] = check_games(client, work.path(), progress, request.told);
  }
  json roles = proved_roles(trust);
  document["trusted_until"] = earliest_expiry(roles);
  document["roles"] = std::move(roles);
  return document;
}

json check_repository(const CheckRequest& request, const Progress& progress) {
  HttpsTransport metadata(below(request.url, metadata_folder), request.ca_bundle, 0, nullptr);
  HttpsTransport targets(below(request.url, targets_folder), request.ca_bundle, 0, nullptr);
  return check_repository(request, metadata, targets, progress);
}

}  // namespace tavro
