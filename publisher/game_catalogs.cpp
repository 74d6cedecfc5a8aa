#include "publisher/game_catalogs.h"

#include <algorithm>
#include <map>

#include "documents/game_catalog.h"
#include "documents/game_manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "publisher/output.h"
#include "tuf/metadata.h"

namespace tavro {
namespace {

constexpr std::string_view games_folder = "games/";
constexpr std::string_view json_suffix = ".json";
constexpr std::size_t digest_characters = 64;
constexpr const char* platforms[] = {"linux-x86_64", "macos-aarch64", "windows-x86_64"};

/// What the repository lists as the manifest of a channel.
struct ListedManifest {
  std::string sha256;
  std::uint64_t length = 0;
};

/// By channel, and these by game.
using ListedChannels = std::map<std::string, ListedManifest, std::less<>>;
using ListedGames = std::map<std::string, ListedChannels, std::less<>>;

/// By platform. What no client would find is left out.
std::map<std::string, ListedGames, std::less<>> listed_games(const RepositoryState& state) {
  std::map<std::string, ListedGames, std::less<>> all;
  for (const auto& role : state.roles)
    for (const auto& target : role.second.at("targets").items()) {
      const std::string& path = target.key();
      const auto name = game_manifest_path(path);
      if (!name) continue;
      const std::optional<ListedTarget> found = look_up(state, path);
      if (!found) continue;
      const std::string sha256 = found->description.at("hashes").value("sha256", "");
      require(name->is_channel || name->name == sha256, "content_mismatch",
              [&] { return "The manifest is not named by its own SHA-256: " + path; });
      if (name->is_channel)
        all[name->platform][name->game_id][name->name] = {sha256, length(found->description)};
    }
  return all;
}

/// The channel whose manifest names the game in the catalogue.
const std::string& naming_channel(const ListedChannels& channels) {
  const auto usual = channels.find(kDefaultGameChannel);
  return usual == channels.end() ? channels.begin()->first : usual->first;
}

/// Makes the catalogue of one platform. A manifest that the present catalogue describes need not be
/// read again: there may be tens of thousands.
class CatalogMaker {
 public:
  CatalogMaker(const Repository& repository, std::string platform,
               const std::optional<GameCatalog>& present)
      : repository_(repository), platform_(std::move(platform)), present_(present) {}

  GameCatalog make(const ListedGames& games) const {
    GameCatalog catalog{platform_, {}};
    for (const auto& [id, channels] : games) catalog.games.emplace(id, entry_of(id, channels));
    return catalog;
  }

 private:
  CatalogGame entry_of(const std::string& id, const ListedChannels& channels) const {
    CatalogGame game{id, {}, {}};
    for (const auto& [channel, manifest] : channels) {
      const CatalogBuild* known = known_build(id, channel, manifest);
      const bool names = channel == naming_channel(channels);
      if (known != nullptr && (!names || named_by(id, channel))) {
        game.channels.emplace(channel, *known);
        if (names) game.display_name = present_->games.at(id).display_name;
        continue;
      }
      const GameManifest read = read_manifest(id, channel);
      game.channels.emplace(
          channel, CatalogBuild{read.build_id, game_download_length(read), read.expanded_length,
                                manifest.sha256, manifest.length});
      if (names) game.display_name = read.display_name;
    }
    return game;
  }

  const CatalogBuild* known_build(const std::string& id, const std::string& channel,
                                  const ListedManifest& manifest) const {
    if (!present_) return nullptr;
    const auto game = present_->games.find(id);
    if (game == present_->games.end()) return nullptr;
    const auto build = game->second.channels.find(channel);
    const bool same = build != game->second.channels.end() &&
                      build->second.manifest_sha256 == manifest.sha256 &&
                      build->second.manifest_length == manifest.length;
    return same ? &build->second : nullptr;
  }

  /// Whether the present name of a known game comes from this channel.
  bool named_by(const std::string& id, const std::string& channel) const {
    const auto& channels = present_->games.at(id).channels;
    return channel == kDefaultGameChannel ||
           (!channels.contains(kDefaultGameChannel) && channel == channels.begin()->first);
  }

  GameManifest read_manifest(const std::string& id, const std::string& channel) const {
    const std::string path = game_manifest_target(id, platform_, channel);
    try {
      GameManifest manifest = GameManifest::parse(
          parse_json(repository_.read_target(path, kMaxGameManifestBytes), kMaxGameManifestBytes));
      require(manifest.game_id == id && manifest.platform == platform_, "content_mismatch",
              "it is the manifest of another game or platform");
      return manifest;
    } catch (const Error& error) {
      // A change may bring many: which of them is it?
      fail(error.code, "No client would take " + path + ": " + error.what());
    }
  }

  const Repository& repository_;
  std::string platform_;
  const std::optional<GameCatalog>& present_;
};

std::optional<GameCatalog> present_catalog(const Repository& repository,
                                           const std::string& platform) {
  const std::string path = game_catalog_target(platform);
  if (!look_up(repository.state(), path)) return std::nullopt;
  return GameCatalog::parse(
      parse_json(repository.read_target(path, kMaxCatalogBytes), kMaxCatalogBytes));
}

/// Where the catalogue is, or would be put.
std::string catalog_role(const Repository& repository, const std::string& platform) {
  const auto listed = look_up(repository.state(), game_catalog_target(platform));
  return listed ? listed->role : "targets";
}

/// The code of a channel is in no manifest, and outlives its builds.
void keep_locks(const std::optional<GameCatalog>& before, GameCatalog& made) {
  if (!before) return;
  for (const auto& [id, game] : before->games) {
    const auto now = made.games.find(id);
    if (now == made.games.end()) continue;
    for (const auto& [channel, build] : game.channels)
      if (const auto same = now->second.channels.find(channel); same != now->second.channels.end())
        same->second.unlock_sha256 = build.unlock_sha256;
  }
}

/// That of a catalogue which its role may be about to lose.
std::optional<GameCatalog> readable_catalog(const Repository& repository,
                                            const std::string& platform) {
  try {
    return present_catalog(repository, platform);
  } catch (const Error&) {
    return std::nullopt;
  }
}

void put_catalog(Repository& repository, const std::string& role, const GameCatalog& catalog) {
  const json document = catalog.to_json();
  const std::string text = document_text(document);
  require(text.size() <= kMaxCatalogBytes, "size_limit",
          "The game catalogue would exceed 4 MiB; withdraw games or channels");
  // What a client will make of it: the bounds of games and channels.
  static_cast<void>(GameCatalog::parse(document));
  repository.put_target(role, game_catalog_target(catalog.platform), text);
}

/// Whether clients could take every build that `present` lists beside what is published.
void require_no_contradiction(const GameCatalog& present, const GameCatalog& made,
                              const std::string& role) {
  for (const auto& game : present.games)
    for (const auto& channel : game.second.channels) {
      const auto now = made.games.find(game.first);
      const bool listed = now != made.games.end() && now->second.channels.contains(channel.first);
      require(listed && now->second.channels.at(channel.first) == channel.second,
              "catalog_not_signed", [&] {
                return "The game catalogue would contradict channel " + channel.first + " of " +
                       game.first + "; sign it too, with the keys of role " + role;
              });
    }
}

}  // namespace

std::optional<GameManifestPath> game_manifest_path(std::string_view path) {
  if (!path.starts_with(games_folder) || !path.ends_with(json_suffix)) return std::nullopt;
  path.remove_prefix(games_folder.size());
  path.remove_suffix(json_suffix.size());
  const std::size_t first = path.find('/');
  const std::size_t last = path.rfind('/');
  if (first == last) return std::nullopt;
  GameManifestPath parts{std::string(path.substr(0, first)),
                         std::string(path.substr(first + 1, last - first - 1)),
                         std::string(path.substr(last + 1))};
  if (!is_known_platform(parts.platform)) return std::nullopt;
  parts.is_channel = !is_lower_hex(parts.name, digest_characters);
  return parts;
}

bool is_game_catalog(std::string_view path) {
  return std::ranges::any_of(
      platforms, [&](const char* platform) { return path == game_catalog_target(platform); });
}

CatalogUpkeep keep_catalogs(Repository& repository, const Signers& signers) {
  CatalogUpkeep done;
  auto games = listed_games(repository.state());
  for (const std::string platform : platforms) {
    const std::optional<GameCatalog> present = present_catalog(repository, platform);
    if (!present && games[platform].empty()) continue;
    GameCatalog made = CatalogMaker(repository, platform, present).make(games[platform]);
    keep_locks(present, made);
    if (made == present) continue;
    const std::string role = catalog_role(repository, platform);
    if (signers.can_sign(authority_of(repository.state(), role))) {
      put_catalog(repository, role, made);
      done.renewed.push_back(platform);
      continue;
    }
    if (present) require_no_contradiction(*present, made, role);
    done.behind.push_back(platform);
  }
  return done;
}

CatalogUpkeep make_catalogs(Repository& repository, const std::string& role) {
  CatalogUpkeep done;
  auto games = listed_games(repository.state());
  for (const std::string platform : platforms) {
    const std::string path = game_catalog_target(platform);
    const auto listed = look_up(repository.state(), path);
    if (!listed && games[platform].empty() && role.empty()) continue;
    const std::string present = catalog_role(repository, platform);
    const std::string wanted = role.empty() ? present : role;
    GameCatalog made = CatalogMaker(repository, platform, std::nullopt).make(games[platform]);
    keep_locks(readable_catalog(repository, platform), made);
    if (listed && present != wanted) repository.remove_target(present, path);
    put_catalog(repository, wanted, made);
    require(catalog_role(repository, platform) == wanted, "target_conflict",
            [&] { return "Clients would not look for " + path + " in role " + wanted; });
    done.renewed.push_back(platform);
  }
  return done;
}

CatalogUpkeep lock_channel(Repository& repository, std::string_view game_id,
                           std::string_view channel, std::string_view code_sha256) {
  CatalogUpkeep done;
  for (const std::string platform : platforms) {
    std::optional<GameCatalog> catalog = present_catalog(repository, platform);
    if (!catalog) continue;
    const auto game = catalog->games.find(game_id);
    if (game == catalog->games.end()) continue;
    const auto build = game->second.channels.find(channel);
    if (build == game->second.channels.end()) continue;
    build->second.unlock_sha256 = code_sha256;
    put_catalog(repository, catalog_role(repository, platform), *catalog);
    done.renewed.push_back(platform);
  }
  return done;
}

}  // namespace tavro
