#pragma once

#include <filesystem>
#include <string_view>

namespace tavro {

/// Starts an installed game without a launcher; `replace` puts it in this process's place, and then
/// this returns only by throwing. Games cannot be found yet, so it always throws `process_start`.
void start_installed_game(const std::filesystem::path& root, std::string_view game_id,
                          bool replace);

}  // namespace tavro
