#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

struct GameManifest;

/// Bounds of a catalogue: of its text, and of what it lists.
inline constexpr std::size_t kMaxCatalogBytes = 4194304;
inline constexpr std::size_t kMaxCatalogGames = 10000;
inline constexpr std::size_t kMaxGameChannels = 8;
/// Bounds of the text of a game manifest, wherever it comes from.
inline constexpr std::size_t kMaxGameManifestBytes = 4194304;

/// The channel of whoever did not choose one.
inline constexpr std::string_view kDefaultGameChannel = "stable";

/// Throws `invalid_identity` unless the text is an identifier that can not be taken for a digest.
void validate_game_channel(std::string_view channel);

/// Repository target paths. `name` is a channel, for its newest build, or the SHA-256 of the bytes
/// of a manifest, under which each build stays reachable.
std::string game_manifest_target(std::string_view game_id, std::string_view platform,
                                 std::string_view name);
std::string game_catalog_target(std::string_view platform);

/// What an install of this release fetches, in bytes: its archive, or the encrypted form with its
/// key where the release has one that this client can open.
std::uint64_t game_download_length(const GameManifest& manifest);
/// Whether the release comes in the encrypted form that this client can open.
bool is_encrypted_release(const GameManifest& manifest);

/// The newest build of one channel.
struct CatalogBuild {
  std::string build_id;
  /// `game_download_length` and `expanded_length` of its manifest.
  std::uint64_t download_length = 0;
  std::uint64_t installed_length = 0;
  /// SHA-256 of the bytes of the manifest, and how many there are.
  std::string manifest_sha256;
  std::uint64_t manifest_length = 0;
  /// SHA-256 of the code that opens the channel to a player; empty for an open channel. A lock
  /// keeps players out by courtesy alone: the build is public to whoever knows its target.
  std::string unlock_sha256 = {};

  bool operator==(const CatalogBuild&) const = default;
};

struct CatalogGame {
  std::string game_id;
  /// 1 to 200 bytes.
  std::string display_name;
  /// 1 to `kMaxGameChannels`, by the name of the channel.
  std::map<std::string, CatalogBuild, std::less<>> channels;

  bool operator==(const CatalogGame&) const = default;
};

/// All games of one platform, so that a client lists them with one look-up: the repository target
/// `game_catalog_target`. It is a summary of signed manifests, each of which stays what an install
/// goes by.
struct GameCatalog {
  std::string platform;
  /// By identifier.
  std::map<std::string, CatalogGame, std::less<>> games;

  /// Proves the whole document or throws `unsupported_schema` (a newer one), `invalid_catalog`,
  /// `invalid_identity`, `invalid_manifest` (a digest) or `size_limit` (more than
  /// `kMaxCatalogGames`). The target of each manifest must be the one that its game and channel
  /// give.
  static GameCatalog parse(const json& document);
  json to_json() const;

  bool operator==(const GameCatalog&) const = default;
};

}  // namespace tavro
