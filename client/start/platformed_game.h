#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// The game of a folder that is a platform for this one game: its "tavro-platform.json" lies beside
/// the running executable.
struct PlatformedGame {
  std::string game_id;
  /// Display name, 1 to 200 bytes.
  std::string name;
  std::string build;
  std::string channel;
  /// The folder of the running executable, absolute and lexically normal.
  std::filesystem::path root;
  /// The program to start, below `root`; it need not exist.
  std::filesystem::path executable;
  /// Origin that crash reports go to: "https://", a host and perhaps a port.
  std::string crash_service;
  /// Below `root`; empty if there is none.
  std::filesystem::path ca_bundle;
};

/// The platformed game of this process, if it has one. Read at the first call and kept to the end
/// of the process, for all threads; after a call that throws the next one reads again. Throws as
/// `current_executable_path`, `read_file`, `parse_json` and `parse_platformed_game`: a file that
/// stands there and cannot be used is a failure, not the absence of a game.
const std::optional<PlatformedGame>& platformed_game();

/// The same if it has exactly this identifier, otherwise null. Throws as the other form.
const PlatformedGame* platformed_game(std::string_view id);

/// Proves the document that lay in `folder`. Throws `platformed_config`, `invalid_identity` or
/// `unsafe_path`.
PlatformedGame parse_platformed_game(const json& value, const std::filesystem::path& folder);

/// The data folder of a platformed game; it need not exist. Throws as `user_data_root`.
std::filesystem::path platformed_data_root(const PlatformedGame& game);

}  // namespace tavro
