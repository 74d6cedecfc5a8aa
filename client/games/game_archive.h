#pragma once

#include <filesystem>
#include <optional>

#include "documents/game_manifest.h"
#include "domain/progress.h"
#include "games/game_download.h"
#include "platform/storage/reserved_tree.h"

namespace tavro {

class TufClient;

/// The files of a release that a client fetches, and how they become a tree.
class GameArchive {
 public:
  GameArchive(const GameManifest& manifest, std::string manifest_ref);

  /// The archive itself: the encrypted form where there is one.
  const GameTarget& target() const noexcept { return archive_; }
  /// That of the encrypted form.
  const std::optional<GameTarget>& key() const noexcept { return key_; }

  /// Throws `key_not_published` for an encrypted release whose key the repository does not offer
  /// yet, before anything is taken, and `content_mismatch` for an archive that it signs otherwise.
  void require_published(TufClient& tuf) const;

  /// Brings archive and key in.
  void fetch(TufClient& tuf, GameDownloads& downloads, const GameProgress& progress);

  /// As `extract_game`, from what was fetched.
  void extract(const SnapshotManifest& part, const ReservedTree& tree,
               const GameProgress& progress) const;

 private:
  const GameManifest& manifest_;
  std::string manifest_ref_;
  GameTarget archive_;
  std::optional<GameTarget> key_;
  std::filesystem::path archive_file_;
  std::filesystem::path key_file_;
};

/// Writes the files of `part` into its reserved tree, straight from the release's archive: an
/// encrypted one is opened with its key chunk by chunk, and lies nowhere in clear. `key` is not
/// looked at for another release. Throws `key_mismatch` for a key that does not open it,
/// `encrypted_format`, and as `extract_snapshot_part`.
void extract_game(const GameManifest& manifest, const SnapshotManifest& part,
                  const std::filesystem::path& archive, const std::filesystem::path& key,
                  const ReservedTree& tree, const Progress& progress);

}  // namespace tavro
