#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "documents/game_catalog.h"

namespace tavro {

/// Bytes of a code that opens a channel.
inline constexpr std::size_t kMaxUnlockCode = 256;

/// What a catalogue tells of the code: the SHA-256 of its bytes without blanks around them. Throws
/// `usage` for one that is empty or too long.
std::string unlock_code_sha256(std::string_view code);

/// The channels that the player opened with a code, one durable document a game in the data folder.
/// Holds nothing open. The code itself is kept nowhere.
class UnlockedChannels {
 public:
  /// Touches nothing. Throws `unsafe_path` and `native_install_incomplete`.
  explicit UnlockedChannels(const std::filesystem::path& data_root);

  /// Opens the channels of the game that this code opens, and answers their names. White space
  /// around the code does not count. Throws `game_not_published`, `usage` for a code that is empty
  /// or too long, `wrong_code` when it opens none; no message holds the code.
  std::vector<std::string> unlock(const GameCatalog& catalog, std::string_view game_id,
                                  std::string_view code) const;

  /// Whether the channel is open to the player: it has no lock, its present lock was opened, or
  /// the catalogue does not list it. A document that cannot be read opens nothing.
  bool is_open(const GameCatalog& catalog, std::string_view game_id,
               std::string_view channel) const;
  /// Throws `channel_locked` otherwise.
  void require_open(const GameCatalog& catalog, std::string_view game_id,
                    std::string_view channel) const;

 private:
  using Opened = std::map<std::string, std::string, std::less<>>;

  std::filesystem::path path_of(std::string_view game_id) const;
  /// The digest of the code by which each channel was opened.
  Opened opened(std::string_view game_id) const;

  std::filesystem::path folder_;
};

}  // namespace tavro
