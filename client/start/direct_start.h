#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tavro {

/// How an installed game is started.
struct GameStart {
  std::filesystem::path executable;
  /// The working directory.
  std::filesystem::path directory;
  std::string build;
};

/// Finds a game by the records below the data folder `root` alone, without
/// launcher or repository: the game that this folder is a platform for (see
/// platformed.h), or an installed one. Proves the stored manifest and the size
/// of the program, and no content of the game.
///
/// Throws `invalid_identity`, `missing_file`, `not_installed`, `invalid_state`,
/// `content_mismatch`, `platform_mismatch`, what `platformed_game`,
/// `read_file`, `parse_json`, `safe_join` and `GameManifest::parse` throw, and
/// exceptions of the JSON library for a record without its members.
GameStart locate_installed_game(const std::filesystem::path& root, std::string_view game_id);

/// Starts what `locate_installed_game` finds, without arguments. With `replace`
/// it takes the place of this process, and this returns only by throwing;
/// otherwise it runs on in a process group of its own, owned by nobody. Throws
/// as `locate_installed_game`, `exec_process` and `ChildProcess`.
void start_installed_game(const std::filesystem::path& root, std::string_view game_id,
                          bool replace);

/// True for the codes of failures that lie with the local disk and not with a
/// release.
bool local_storage_failure(std::string_view code);

}  // namespace tavro
