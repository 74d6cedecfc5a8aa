#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "publisher/repository.h"
#include "publisher/signing.h"

namespace tavro {

/// The parts of the target path of a game's manifest.
struct GameManifestPath {
  std::string game_id;
  std::string platform;
  /// A channel, or the SHA-256 of the manifest.
  std::string name;
  bool is_channel = false;
};

/// Empty for the path of anything else.
std::optional<GameManifestPath> game_manifest_path(std::string_view path);

bool is_game_catalog(std::string_view path);

/// What became of the catalogues, by platform.
struct CatalogUpkeep {
  /// Made anew, and signed by the role that has them.
  std::vector<std::string> renewed;
  /// True in what they list, but something published is missing in them.
  std::vector<std::string> behind;
};

/// Makes the catalogue of each platform tell of the games that clients find in the repository as it
/// has been changed so far; one that does already stays as it is. It belongs to the role that lists
/// it, at first to "targets". Where the keys at hand do not suffice for that role, the catalogue
/// may stay behind, but must not contradict anything: a client would refuse the build
/// (`catalog_not_signed`, with nothing published).
///
/// Throws for a manifest that no client would take what the client would say of it,
/// `content_mismatch` for one of another game or platform, or not of its digest, and `size_limit`
/// for a catalogue beyond its bounds.
CatalogUpkeep keep_catalogs(Repository& repository, const Signers& signers);

/// Makes all of them anew from the manifests alone. They come into this role, also those of other
/// roles and of platforms without games, so that whoever publishes a game later has its keys at
/// hand; with an empty role each stays where it is. Throws as `keep_catalogs`, and
/// `target_conflict` when clients would find another role's instead.
CatalogUpkeep make_catalogs(Repository& repository, const std::string& role);

/// Lets players install a channel only with the code of this SHA-256, or again without one when it
/// is empty, on every platform that has the channel; later builds stay under it.
CatalogUpkeep lock_channel(Repository& repository, std::string_view game_id,
                           std::string_view channel, std::string_view code_sha256);

}  // namespace tavro
