#pragma once

#include <string>
#include <vector>

#include "games/game_install.h"

namespace tavro {

class TufClient;

struct GameRepair {
  /// Files that were replaced or put back.
  unsigned long long replaced = 0;
  /// What stood in the way of a file and was no file: it was set aside under these relative paths.
  std::vector<std::string> set_aside;
};

/// Compares the active build with its manifest, brings its damaged and missing files anew, and
/// leaves everything else in its folder as it is. Only these are unpacked; the archive is fetched
/// whole. A manifest that was lost, or a whole folder, comes anew as well. `writer` is settled, and
/// the caller holds the exclusive lease of the build. After a failure a further call completes it.
///
/// Throws as `compare_game_files`, `with_tree` and `GameArchive`; for a lost manifest that the
/// repository offers no more, what is wrong with it.
GameRepair repair_game(GameWriter& writer, TufClient& tuf, const GameProgress& progress);

}  // namespace tavro
