#pragma once

#include <string>
#include <vector>

#include "games/game_install.h"
#include "games/game_verify.h"

namespace tavro {

class TufClient;

struct GameRepair {
  /// Files that were replaced or put back.
  unsigned long long replaced = 0;
  /// What stood in the way of a file and was no file: it was set aside under these relative paths.
  std::vector<std::string> set_aside;
};

/// Brings the damaged and missing files of the active build anew, and leaves everything else in its
/// folder as it is. Only these are unpacked; the archive is fetched whole. `writer` is settled, and
/// the caller holds the exclusive lease of the build. After a failure a further call completes it.
GameRepair repair_game(GameWriter& writer, TufClient& tuf, const GameDifferences& differences,
                       const GameProgress& progress);

}  // namespace tavro
