#include "documents/game_catalog.h"

#include "documents/game_manifest.h"
#include "documents/manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

constexpr char invalid[] = "invalid_catalog";
constexpr char catalog_kind[] = "tavro-game-catalog";
constexpr std::size_t max_name_bytes = 200;
constexpr std::size_t digest_characters = 64;
constexpr std::uint64_t max_download = chunked_archive_length(kMaxSnapshotBytes) + kArchiveKeyBytes;

std::uint64_t bounded_length(const json& value, std::uint64_t most) {
  const std::uint64_t length = size_value(value);
  require(length >= 1 && length <= most, invalid,
          "A length of the game catalogue is out of bounds");
  return length;
}

CatalogBuild read_build(const json& value, const std::string& expected_target) {
  CatalogBuild build;
  build.build_id = text_member(value, "build_id");
  validate_identifier(build.build_id);
  build.download_length = bounded_length(value.at("download_length"), max_download);
  build.installed_length = size_value(value.at("installed_length"));
  require(build.installed_length <= kMaxSnapshotBytes, invalid,
          "A length of the game catalogue is out of bounds");
  const json& manifest = value.at("manifest");
  require(has_text(manifest, "target", expected_target), invalid,
          [&] { return "The game catalogue names another manifest than " + expected_target; });
  build.manifest_sha256 = sha256(manifest.at("sha256"));
  build.manifest_length = bounded_length(manifest.at("length"), kMaxGameManifestBytes);
  if (const json* lock = find_member(value, "locked"))
    build.unlock_sha256 = sha256(lock->at("code_sha256"));
  return build;
}

CatalogGame read_game(const json& value, const std::string& platform) {
  CatalogGame game;
  game.game_id = text_member(value, "game_id");
  validate_identifier(game.game_id);
  game.display_name = text_member(value, "display_name");
  require(!game.display_name.empty() && game.display_name.size() <= max_name_bytes, invalid,
          "A game's name in the catalogue is missing or too long");
  const json& channels = value.at("channels");
  require(channels.is_object() && !channels.empty() && channels.size() <= kMaxGameChannels, invalid,
          "A game of the catalogue has no channel or too many");
  for (const auto& [name, build] : channels.items()) {
    validate_game_channel(name);
    game.channels.emplace(name,
                          read_build(build, game_manifest_target(game.game_id, platform, name)));
  }
  return game;
}

GameCatalog read_catalog(const json& document) {
  require(has_text(document, "kind", catalog_kind), invalid, "This is no game catalogue");
  GameCatalog catalog;
  catalog.platform = text_member(document, "platform");
  require(is_known_platform(catalog.platform), invalid,
          "The game catalogue is for an unknown platform");
  const json& games = document.at("games");
  require(games.is_array(), invalid, "The game catalogue lists no games");
  require(games.size() <= kMaxCatalogGames, "size_limit",
          "The game catalogue lists more than 10000 games");
  for (const json& value : games) {
    CatalogGame game = read_game(value, catalog.platform);
    const std::string id = game.game_id;
    require(catalog.games.emplace(id, std::move(game)).second, invalid,
            [&] { return "The game catalogue lists a game twice: " + id; });
  }
  return catalog;
}

}  // namespace

void validate_game_channel(std::string_view channel) {
  validate_identifier(channel);
  require(!is_lower_hex(channel, digest_characters), "invalid_identity",
          "A channel cannot be named like a digest");
}

std::string game_manifest_target(std::string_view game_id, std::string_view platform,
                                 std::string_view name) {
  return "games/" + std::string(game_id) + '/' + std::string(platform) + '/' + std::string(name) +
         ".json";
}

std::string game_catalog_target(std::string_view platform) {
  return "games/catalog-" + std::string(platform) + ".json";
}

bool is_encrypted_release(const GameManifest& manifest) {
  return manifest.encrypted && manifest.encrypted->format == kChunkedDecoder;
}

std::uint64_t game_download_length(const GameManifest& manifest) {
  return is_encrypted_release(manifest) ? manifest.encrypted->artifact_length + kArchiveKeyBytes
                                        : manifest.archive_length;
}

GameCatalog GameCatalog::parse(const json& document) {
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "Unsupported game catalogue schema; update the launcher");
  return read_fields(invalid, "The game catalogue has missing or malformed fields",
                     [&] { return read_catalog(document); });
}

json GameCatalog::to_json() const {
  json listed = json::array();
  for (const auto& [id, game] : games) {
    json channels = json::object();
    for (const auto& [name, build] : game.channels) {
      channels[name] = {{"build_id", build.build_id},
                        {"download_length", build.download_length},
                        {"installed_length", build.installed_length},
                        {"manifest",
                         {{"target", game_manifest_target(id, platform, name)},
                          {"sha256", build.manifest_sha256},
                          {"length", build.manifest_length}}}};
      if (!build.unlock_sha256.empty())
        channels[name]["locked"] = {{"code_sha256", build.unlock_sha256}};
    }
    listed.push_back(
        {{"game_id", id}, {"display_name", game.display_name}, {"channels", std::move(channels)}});
  }
  return {{"schema_version", 1},
          {"kind", catalog_kind},
          {"platform", platform},
          {"games", std::move(listed)}};
}

}  // namespace tavro
