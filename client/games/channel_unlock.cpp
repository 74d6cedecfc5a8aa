#include "games/channel_unlock.h"

#include <nlohmann/json.hpp>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char kind[] = "tavro-unlocked-channels";
constexpr std::size_t document_bytes = 16384;
constexpr std::size_t digest_characters = 64;

std::string_view trimmed(std::string_view code) {
  constexpr std::string_view blanks = " \t\r\n";
  const std::size_t first = code.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return code.substr(first, code.find_last_not_of(blanks) - first + 1);
}

/// The digest of the code that opens the channel; empty where none is needed.
std::string lock_of(const GameCatalog& catalog, std::string_view game_id,
                    std::string_view channel) {
  const auto game = catalog.games.find(game_id);
  if (game == catalog.games.end()) return {};
  const auto build = game->second.channels.find(channel);
  return build == game->second.channels.end() ? std::string() : build->second.unlock_sha256;
}

}  // namespace

std::string unlock_code_sha256(std::string_view code) {
  const std::string_view plain = trimmed(code);
  require(!plain.empty() && plain.size() <= kMaxUnlockCode, "usage",
          "An access code has 1 to 256 bytes");
  return digest(plain, "sha256");
}

UnlockedChannels::UnlockedChannels(const fs::path& data_root)
    : folder_(data_folder(data_root) / "unlocked-channels") {
  require_complete_native_install(folder_.parent_path());
}

fs::path UnlockedChannels::path_of(std::string_view game_id) const {
  validate_identifier(game_id);
  return folder_ / (std::string(game_id) + ".json");
}

UnlockedChannels::Opened UnlockedChannels::opened(std::string_view game_id) const {
  const fs::path path = path_of(game_id);
  if (!stands(path)) return {};
  try {
    const json document = parse_json(read_file(path, document_bytes), document_bytes);
    require(has_integer(document, "schema_version", 1) && has_text(document, "kind", kind),
            "invalid_state", "no list");
    return read_fields("invalid_state", "malformed", [&] {
      Opened opened;
      for (const auto& [channel, code] : document.at("channels").items())
        if (is_lower_hex_text(code, digest_characters)) opened.emplace(channel, code);
      return opened;
    });
  } catch (const Error&) {
    // The code opens it again.
    return {};
  }
}

std::vector<std::string> UnlockedChannels::unlock(const GameCatalog& catalog,
                                                  std::string_view game_id,
                                                  std::string_view code) const {
  const fs::path path = path_of(game_id);
  const std::string code_sha256 = unlock_code_sha256(code);
  const auto game = catalog.games.find(game_id);
  require(game != catalog.games.end(), "game_not_published",
          [&] { return "The repository publishes no such game: " + std::string(game_id); });
  std::vector<std::string> names;
  for (const auto& [channel, build] : game->second.channels)
    if (build.unlock_sha256 == code_sha256) names.push_back(channel);
  require(!names.empty(), "wrong_code", "This code opens no channel of the game");

  const FileLock lock(folder_ / "channels.lock", true, LockMode::exclusive);
  torn_write::remove_leftovers(folder_, {path_utf8(path.filename())});
  Opened opened;
  // Of what was opened before, only what is listed still counts: that bounds the document.
  for (const auto& [channel, earlier] : this->opened(game_id))
    if (game->second.channels.contains(channel)) opened.emplace(channel, earlier);
  for (const std::string& name : names) opened.insert_or_assign(name, code_sha256);
  const json document = {{"schema_version", 1}, {"kind", kind}, {"channels", opened}};
  atomic_write(path, document.dump());
  return names;
}

bool UnlockedChannels::is_open(const GameCatalog& catalog, std::string_view game_id,
                               std::string_view channel) const {
  const std::string lock = lock_of(catalog, game_id, channel);
  if (lock.empty()) return true;
  const Opened all = opened(game_id);
  const auto found = all.find(channel);
  return found != all.end() && found->second == lock;
}

void UnlockedChannels::require_open(const GameCatalog& catalog, std::string_view game_id,
                                    std::string_view channel) const {
  require(is_open(catalog, game_id, channel), "channel_locked",
          [&] {
            return "The channel " + std::string(channel) + " of " + std::string(game_id) +
                   " is locked; open it with its access code";
          },
          {"channel unlock " + std::string(game_id)});
}

}  // namespace tavro
