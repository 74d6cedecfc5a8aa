#pragma once

#include <filesystem>

namespace tavro {

/// Removes a folder that the system made for a game, with all that the game left in it: names and
/// kinds of files that no build may have, and links, which are not followed. The parent is synced;
/// nothing at `path` is fine. Throws `file_remove` with the path when something is left, as in a
/// folder that the game closed; a further call goes on.
void remove_game_folder(const std::filesystem::path& path);

}  // namespace tavro
