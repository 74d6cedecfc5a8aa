#include "games/game_release.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>

#include <exception>
#include <utility>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "games/game_store.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/host/system_calls.h"
#include "tuf/metadata.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t cache_entries = 4096;

fs::path cache_of(const fs::path& data_root) { return data_root / "game-offers"; }

FileLock lock_cache(const fs::path& cache) {
  return {cache / "offers.lock", false, LockMode::exclusive};
}

/// A killed transfer leaves its partial file, which no later one goes on with.
void drop_partial_files(const fs::path& folder, const std::string& final_name) {
  std::error_code ignored;
  if (!fs::is_directory(folder, ignored)) return;
  std::vector<fs::path> dead;
  std::size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    require(++entries <= cache_entries, "size_limit", "The cache of game offers holds too much");
    if (!nonce_between(path_utf8(entry.path().filename()), final_name, ".partial").empty())
      dead.push_back(entry.path());
  }
  for (const fs::path& path : dead) native_files::remove_or_trash(path, {});
}

bool has_hashes(const std::string& text, const json& hashes) {
  for (const auto& [name, expected] : hashes.items())
    if (expected != digest(text, name)) return false;
  return true;
}

}  // namespace

GameOffers::GameOffers(const fs::path& data_root, TufClient& tuf, GameProgress progress)
    : GameOffers(data_root, tuf, native_platform(), std::move(progress)) {}

GameOffers::GameOffers(const fs::path& data_root, TufClient& tuf, std::string_view platform,
                       GameProgress progress)
    : cache_(cache_of(data_root)), tuf_(tuf), platform_(platform), progress_(std::move(progress)) {}

std::string GameOffers::fetch(const std::string& target, std::size_t most, std::string_view missing,
                              const std::string& meaning, bool keep) {
  const Progress looking = [this](auto done, auto total) {
    return !progress_ || progress_("looking", done, total);
  };
  // The first look brings the repository's own documents.
  require(looking(0, 0), "cancelled", "Operation cancelled at a safe boundary");
  const std::optional<json> description = tuf_.find_target(target);
  require(description.has_value(), missing, meaning);
  const auto bytes = length(*description);
  require(bytes <= most, "size_limit",
          [&] { return "The repository's file is too large: " + target; });
  private_directory(cache_);
  const FileLock lock = lock_cache(cache_);
  const fs::path file = safe_join(cache_, target, true);
  drop_partial_files(file.parent_path(), path_utf8(file.filename()));
  tuf_.download(target, cache_, looking, {}, {});
  // What was proved lay in a file; what is used are these bytes.
  std::string text = read_file(file, most);
  require(text.size() == bytes && has_hashes(text, description->at("hashes")), "content_mismatch",
          [&] { return "This file of game offers changed meanwhile: " + path_utf8(file); });
  if (keep) return text;
  native_files::remove_or_trash(file, {});
  for (fs::path empty = file.parent_path(); empty != cache_; empty = empty.parent_path())
    if (retried([&] { return system_calls().unlinkat(AT_FDCWD, empty.c_str(), AT_REMOVEDIR); }) !=
        0)
      break;
  return text;
}

GameCatalog GameOffers::catalog() {
  const std::string text =
      fetch(game_catalog_target(platform_), kMaxCatalogBytes, "catalog_not_published",
            "The repository publishes no games for " + platform_, true);
  GameCatalog catalog = GameCatalog::parse(parse_json(text, kMaxCatalogBytes));
  require(catalog.platform == platform_, "catalog_mismatch",
          "The game catalogue is that of another platform");
  return catalog;
}

GameRelease GameOffers::release(const std::string& game_id, const std::string& name) {
  const std::string target = game_manifest_target(game_id, platform_, name);
  const std::string text =
      fetch(target, kMaxGameManifestBytes, "game_not_published",
            "The repository publishes no such build: " + game_id + ", " + name, false);
  constexpr std::size_t digest_characters = 64;
  require(!is_lower_hex(name, digest_characters) || digest(text, "sha256") == name,
          "content_mismatch", "The repository's manifest is not that of the build asked for");
  GameRelease release{GameManifest::parse(parse_json(text, kMaxGameManifestBytes)),
                      {},
                      digest(text, "sha256"),
                      target};
  require(release.manifest.game_id == game_id, "content_mismatch",
          "The repository's manifest is that of another game");
  require(release.manifest.platform == platform_, "platform_mismatch",
          "The repository's manifest is for another platform");
  release.manifest_ref = manifest_reference(release.manifest);
  return release;
}

void require_as_listed(const GameCatalog& catalog, std::string_view channel,
                       const GameRelease& release) {
  const GameManifest& manifest = release.manifest;
  const auto game = catalog.games.find(manifest.game_id);
  if (game == catalog.games.end()) return;
  const auto listed = game->second.channels.find(channel);
  if (listed == game->second.channels.end()) return;
  const bool true_words = listed->second.build_id == manifest.build_id &&
                          listed->second.manifest_sha256 == release.manifest_sha256 &&
                          listed->second.download_length == game_download_length(manifest) &&
                          listed->second.installed_length == manifest.expanded_length;
  require(true_words, "catalog_mismatch", [&] {
    return "The game catalogue and the manifest contradict each other: " + manifest.game_id;
  });
}

void forget_game_offers(const fs::path& data_root, std::string_view game_id) {
  validate_identifier(game_id);
  const fs::path cache = cache_of(data_root);
  const fs::path offers = cache / "games" / game_id;
  if (!bears_name(offers)) return;
  try {
    const FileLock lock = lock_cache(cache);
    remove_plain_tree(offers);
  } catch (const std::exception&) {
    // Another process looks something up: the next look-up of this game cleans as well.
  }
}

}  // namespace tavro
