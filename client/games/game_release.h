#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "documents/game_catalog.h"
#include "documents/game_manifest.h"
#include "games/game_paths.h"
#include "games/game_record.h"

namespace tavro {

class TufClient;

/// A release as the repository offers it, proved to be of the game and platform that were asked
/// for.
struct GameRelease {
  GameManifest manifest;
  /// By which it is stored.
  std::string manifest_ref;
  /// Of its bytes, as the catalogue and the repository name it.
  std::string manifest_sha256;
  /// Where it came from.
  std::string manifest_target;
};

/// What the repository says of games, fetched into a cache of its own below a data folder; only the
/// catalogue stays there. Throws `busy` while another process of this folder asks.
class GameOffers {
 public:
  GameOffers(const std::filesystem::path& data_root, TufClient& tuf);
  /// The same for what is offered to another platform.
  GameOffers(const std::filesystem::path& data_root, TufClient& tuf, std::string_view platform);

  /// Throws `catalog_not_published`, `catalog_mismatch` (for another platform), `size_limit` before
  /// a byte of it is taken, and the codes of `GameCatalog::parse` and of the client.
  GameCatalog catalog();

  /// `name` is a channel or the SHA-256 of a manifest's bytes. Throws `game_not_published`,
  /// `content_mismatch` (another game's manifest, or not of that digest), `platform_mismatch`,
  /// `size_limit`, and the codes of `GameManifest::parse` and of the client.
  GameRelease release(const std::string& game_id, const std::string& name);

 private:
  std::string fetch(const std::string& target, std::size_t most, std::string_view missing,
                    const std::string& meaning, bool keep);

  std::filesystem::path cache_;
  TufClient& tuf_;
  std::string platform_;
};

/// Throws `catalog_mismatch` unless the catalogue tells the truth of the newest release of a
/// channel, as far as it lists it. The name is not compared: a catalogue has one for all channels
/// of a game, and a new one comes to them one after the other.
void require_as_listed(const GameCatalog& catalog, std::string_view channel,
                       const GameRelease& release);

}  // namespace tavro
