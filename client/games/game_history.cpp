#include "games/game_history.h"

#include <nlohmann/json.hpp>

#include <algorithm>
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
  GameStartSeen seen;
  bool ended = false;
};

/// The sessions that can be read, the oldest first.
std::vector<SeenSession> seen_sessions(const GameStore& store) {
  std::vector<SeenSession> sessions;
  std::error_code ignored;
  std::size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(store.paths().sessions, ignored)) {
    require(++entries <= session_entries, "size_limit", "The game has too many sessions");
    const auto result = read_seen(entry.path() / result_name);
    const auto start = result ? result : read_seen(entry.path() / start_name);
    if (start) sessions.push_back({entry.path(), *start, result.has_value()});
  }
  std::sort(sessions.begin(), sessions.end(), [](const auto& left, const auto& right) {
    return std::pair(left.seen.started, left.seen.session_id) <
           std::pair(right.seen.started, right.seen.session_id);
  });
  return sessions;
}

bool runs_any_build(const GameWriter& writer) {
  std::vector<GameVersion> builds = writer.record.retired;
  for (const auto& build : {writer.record.active, writer.record.previous})
    if (build) builds.push_back(*build);
  return std::any_of(builds.begin(), builds.end(),
                     [&](const GameVersion& build) { return writer.is_running(build); });
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
  const auto sessions = seen_sessions(store);
  if (!sessions.empty()) return sessions.back().seen;
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

void settle_game_sessions(GameWriter& writer) {
  auto sessions = seen_sessions(writer);
  if (sessions.empty()) return;
  writer.record.last_start = sessions.back().seen;
  // One whose observer went away never ends on paper; when nothing runs, it has ended all the same.
  const bool something_runs = std::any_of(sessions.begin(), sessions.end(),
                                          [](const auto& session) { return !session.ended; }) &&
                              runs_any_build(writer);
  std::erase_if(sessions, [&](const auto& session) { return !session.ended && something_runs; });
  const std::size_t old = sessions.size() - std::min(sessions.size(), kept_sessions);
  for (std::size_t i = 0; i < old; ++i) remove_plain_tree(sessions[i].folder);
}

}  // namespace tavro
