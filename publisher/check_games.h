#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "domain/json.h"
#include "domain/progress.h"

namespace tavro {

class TufClient;

/// Hears of each build once it was looked at, in one line.
using GameTold = std::function<void(const std::string& line)>;

/// Proves every build that the game catalogues of a repository list, of all platforms, as a client
/// would that installs it: the catalogue, the manifest of the channel and its copy by digest, the
/// archive (with its key when it is encrypted), decoded and compared file by file. A build that
/// several channels have is fetched once. Goes on behind a failure, and answers an array with
/// `platform`, `game_id`, `channel`, `build_id`, `encrypted` and `length` of each, and `problem`
/// (`code` and `message`) of what failed; one that concerns a whole catalogue has `platform` alone.
/// Throws `catalog_not_published` when there is no catalogue at all, and `cancelled`.
///
/// `work` is a private folder that exists; it needs room for the archive and the tree of the
/// largest game, and is empty afterwards. Memory does not grow with the games.
json check_games(TufClient& client, const std::filesystem::path& work, const Progress& progress,
                 const GameTold& told);

}  // namespace tavro
