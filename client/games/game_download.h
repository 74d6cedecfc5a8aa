#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "games/game_store.h"

namespace tavro {

class TufClient;

/// A target of a release, with what its manifest says of it.
struct GameTarget {
  std::string path;
  std::uint64_t length = 0;
  std::string sha256;
};

/// Throws `content_mismatch` unless the signed description is that of the release.
void require_authorized(const json& description, const GameTarget& target);

/// The downloads of one game. A document of the game names each file before its first byte is
/// taken, so that whatever a crash leaves in the folder can be gone on with, or taken away again.
/// An archive of a game may be larger than what the receipts of the launcher's own downloads admit.
class GameDownloads {
 public:
  /// The writer must outlive this object.
  explicit GameDownloads(const GameWriter& writer);

  /// Brings the target in and answers where its proved file lies. What an earlier run left of it is
  /// gone on with. `phase` names the progress. `manifest_ref` binds a partial file to one release.
  ///
  /// Throws `content_mismatch` when the repository signs something else under this path than the
  /// release says, `insufficient_space`, `download_ownership` (a partial file that nobody
  /// recorded), `cancelled`, and what the client throws.
  std::filesystem::path fetch(TufClient& tuf, const GameTarget& target,
                              const std::string& manifest_ref, const GameProgress& progress,
                              std::string_view phase);

  /// What is on disk of a target by now, in bytes that it takes there.
  unsigned long long allocated(const GameTarget& target) const;

  /// Takes every recorded file away, and the folders that only they needed. Others stay.
  void forget();

 private:
  void note(const GameTarget& target, std::string_view temporary);
  bool knows(const GameTarget& target, std::string_view temporary) const;
  void store() const;
  bool is_gone(const json& entry) const;
  void remove_files(const json& entry) const;

  const GameWriter& writer_;
  /// Array of `target`, `temporary`, `length` and `sha256`.
  json entries_;
};

}  // namespace tavro
