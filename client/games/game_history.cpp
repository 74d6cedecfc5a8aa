#include "games/game_history.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t result_bytes = 16384;
constexpr std::size_t session_entries = 4096;
constexpr std::size_t kept_sessions = 8;
constexpr std::size_t session_id_characters = 32;
constexpr char start_name[] = "start.json";
constexpr char result_name[] = "result.json";

void store(const fs::path& path, const GameStartSeen& seen) {
  const json document = {
      {"schema_version", 1}, {"kind", "tavro-game-session"}, {"start", seen.to_json()}};
  atomic_write(path, document.dump());
}

std::optional<GameStartSeen> read_seen(const fs::path& path) {
  if (!bears_name(path)) return std::nullopt;
  try {
    const json document = parse_json(read_file(path, result_bytes), result_bytes);
    if (!has_integer(document, "schema_version", 1)) return std::nullopt;
    return read_fields("invalid_state", "malformed",
                       [&] { return GameStartSeen::parse(document.at("start")); });
  } catch (const Error&) {
    // What cannot be read tells nothing of a start, and stays.
    return std::nullopt;
  }
}

struct SeenSession {
  fs::path folder;
  /// Without an identifier when it cannot be read.
  GameStartSeen seen;
  bool ended = false;
};

/// The oldest first, and before them those that cannot be read. Beyond the bound they wait until
/// others are gone.
std::vector<SeenSession> seen_sessions(const GameStore& store) {
  std::vector<SeenSession> sessions;
  std::error_code ignored;
  std::size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(store.paths().sessions, ignored)) {
    if (++entries > session_entries) break;
    const auto result = read_seen(entry.path() / result_name);
    const auto start = result ? result : read_seen(entry.path() / start_name);
    sessions.push_back({entry.path(), start.value_or(GameStartSeen()), result.has_value()});
  }
  std::sort(sessions.begin(), sessions.end(), [](const auto& left, const auto& right) {
    return std::pair(left.seen.started, left.seen.session_id) <
           std::pair(right.seen.started, right.seen.session_id);
  });
  return sessions;
}

bool runs_any_build(const GameStore& store) {
  const auto record = store.find();
  if (!record) return false;
  std::vector<GameVersion> builds = record->retired;
  for (const auto& build : {record->active, record->previous})
    if (build) builds.push_back(*build);
  return std::any_of(builds.begin(), builds.end(),
                     [&](const GameVersion& build) { return store.is_running(build); });
}

std::optional<GameStartSeen> newest(const std::vector<SeenSession>& sessions) {
  if (sessions.empty() || sessions.back().seen.session_id.empty()) return std::nullopt;
  return sessions.back().seen;
}

void prune(const GameStore& store, std::vector<SeenSession> sessions) {
  const bool something_runs = std::any_of(sessions.begin(), sessions.end(),
                                          [](const auto& session) { return !session.ended; }) &&
                              runs_any_build(store);
  std::erase_if(sessions, [&](const auto& session) { return !session.ended && something_runs; });
  const std::size_t old = sessions.size() - std::min(sessions.size(), kept_sessions);
  // Whatever the game left there must not keep from the game.
  for (std::size_t i = 0; i < old; ++i) remove_path_quietly(sessions[i].folder);
}

}  // namespace

fs::path game_output_path(const fs::path& session) { return session / "output.log"; }

void store_game_start(const fs::path& session, const GameStartSeen& seen) {
  store(session / start_name, seen);
}

void store_game_end(const fs::path& session, const GameStartSeen& seen) {
  store(session / result_name, seen);
}

std::optional<GameStartSeen> last_game_start(const GameStore& store) {
  if (auto seen = newest(seen_sessions(store))) return seen;
  const auto record = store.find();
  return record ? record->last_start : std::nullopt;
}

std::string kept_game_output(const GameStore& store, std::string_view session_id) {
  require(is_lower_hex(session_id, session_id_characters), "invalid_identity",
          "A session has 32 hexadecimal characters");
  const fs::path path = game_output_path(store.paths().sessions / session_id);
  if (!bears_name(path)) return {};
  unsigned long long size = 0;
  return read_file_tail(path, kGameOutputBytes, &size);
}

void prune_game_sessions(const GameStore& store) {
  try {
    prune(store, seen_sessions(store));
  } catch (const std::exception&) {
    // The next start, or the next change of the game, does it.
  }
}

void settle_game_sessions(GameWriter& writer) {
  auto sessions = seen_sessions(writer);
  if (auto seen = newest(sessions)) writer.record.last_start = std::move(seen);
  prune(writer, std::move(sessions));
}

}  // namespace tavro
