#include "publisher/check_games.h"

#include <nlohmann/json.hpp>

#include <set>

#include "documents/game_catalog.h"
#include "domain/error.h"
#include "games/game_archive.h"
#include "games/game_release.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/storage/reserved_tree.h"
#include "tuf/metadata.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// Something that lies in the work folder for one build.
class Passing {
 public:
  explicit Passing(fs::path path) : path_(std::move(path)) {}
  Passing(Passing&&) = delete;
  ~Passing() { remove_path_quietly(path_); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

json problem_of(const Error& error) {
  // What stops the whole check is no fault of one game.
  if (error.code == "cancelled") throw error;
  return {{"code", error.code}, {"message", error.what()}};
}

/// The builds of one catalogue.
class PlatformCheck {
 public:
  PlatformCheck(TufClient& client, const fs::path& work, const std::string& platform,
                const Progress& progress)
      : client_(client),
        work_(work),
        offers_(work, client, platform),
        platform_(platform),
        progress_(progress) {}

  GameCatalog catalog() { return offers_.catalog(); }

  json check(const GameCatalog& catalog, const CatalogGame& game, const std::string& channel) {
    json found = {{"platform", platform_},
                  {"game_id", game.game_id},
                  {"channel", channel},
                  {"build_id", game.channels.at(channel).build_id}};
    try {
      const GameRelease release = offers_.release(game.game_id, channel);
      require_as_listed(catalog, channel, release);
      require_kept(release, game.channels.at(channel));
      found["encrypted"] = is_encrypted_release(release.manifest);
      found["length"] = game_download_length(release.manifest);
      if (!proved_.contains(release.manifest_sha256)) prove(release);
      proved_.insert(release.manifest_sha256);
    } catch (const Error& error) {
      found["problem"] = problem_of(error);
    }
    return found;
  }

 private:
  /// Whether the build stays reachable when the channel goes on, and is listed with its length.
  void require_kept(const GameRelease& release, const CatalogBuild& listed) {
    const GameTarget kept{
        game_manifest_target(release.manifest.game_id, platform_, release.manifest_sha256),
        listed.manifest_length, release.manifest_sha256};
    require_authorized(client_, kept);
  }

  void prove(const GameRelease& release) {
    const GameManifest& manifest = release.manifest;
    const GameArchive archive(manifest, release.manifest_ref);
    archive.require_published(client_);
    const Passing files(work_ / "files");
    const fs::path archive_file = fetch(archive.target(), files.path());
    const fs::path key_file = archive.key() ? fetch(*archive.key(), files.path()) : fs::path();
    const Passing place(work_ / "tree");
    const ReservedTree tree(manifest, place.path(), progress_, {});
    extract_game(manifest, manifest, archive_file, key_file, tree, progress_);
  }

  fs::path fetch(const GameTarget& target, const fs::path& folder) {
    require_authorized(client_, target);
    return client_.download(target.path, folder, progress_, {}, {});
  }

  TufClient& client_;
  const fs::path& work_;
  GameOffers offers_;
  std::string platform_;
  const Progress& progress_;
  /// The manifests of builds that were proved before, in another channel.
  std::set<std::string> proved_;
};

std::string line_of(const json& found) {
  std::string line = found.at("platform");
  for (const char* part : {"game_id", "channel", "build_id"})
    if (found.contains(part)) line += ' ' + found.at(part).get<std::string>();
  if (found.contains("problem"))
    return line + ": FAILED, " + found.at("problem").at("message").get<std::string>();
  return line + ": " + found.at("length").dump() + " bytes" +
         (found.at("encrypted").get<bool>() ? ", encrypted" : "") + ", verifies";
}

void check_platform(PlatformCheck& check, const std::string& platform,
                    const std::function<void(json)>& add) {
  GameCatalog catalog;
  try {
    catalog = check.catalog();
  } catch (const Error& error) {
    return add({{"platform", platform}, {"problem", problem_of(error)}});
  }
  for (const auto& [id, game] : catalog.games)
    for (const auto& channel : game.channels) add(check.check(catalog, game, channel.first));
}

}  // namespace

json check_games(TufClient& client, const fs::path& work, const Progress& progress,
                 const GameTold& told) {
  json all = json::array();
  bool any = false;
  const auto add = [&](json found) {
    if (told) told(line_of(found));
    all.push_back(std::move(found));
  };
  for (const std::string platform : {"linux-x86_64", "macos-aarch64", "windows-x86_64"}) {
    if (!client.find_target(game_catalog_target(platform))) continue;
    any = true;
    const Passing folder(work / platform);
    private_directory(folder.path());
    PlatformCheck check(client, folder.path(), platform, progress);
    check_platform(check, platform, add);
  }
  require(any, "catalog_not_published", "The repository publishes no game catalogue");
  return all;
}

}  // namespace tavro
