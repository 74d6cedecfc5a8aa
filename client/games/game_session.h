#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.h"
#include "games/game_store.h"

namespace tavro {

/// Names of the variables of a game's environment; see docs/games.md.
inline constexpr std::string_view kGameIdVariable = "TAVRO_GAME_ID";
inline constexpr std::string_view kGameBuildVariable = "TAVRO_GAME_BUILD";
inline constexpr std::string_view kGameSavesVariable = "TAVRO_GAME_SAVES";
inline constexpr std::string_view kGameStateVariable = "TAVRO_GAME_STATE";
inline constexpr std::string_view kGameSessionVariable = "TAVRO_GAME_SESSION";
inline constexpr std::string_view kGameSessionIdVariable = "TAVRO_GAME_SESSION_ID";
inline constexpr std::string_view kGameNonceVariable = "TAVRO_GAME_NONCE";

/// Of the output of a game this much is kept, in bytes.
inline constexpr std::size_t kGameOutputBytes = 65536;

/// What a game says of itself while it runs.
enum class GamePhase { starting, ready, ended };

/// How a start went, complete when `phase` is `ended`.
struct GameReport {
  GamePhase phase = GamePhase::starting;
  GameStartSeen seen;
  /// The last record of the game that was proved, null when there was none; for its breadcrumbs.
  json session;
  /// Why the newest record of the game did not count; empty when it did, or when there is none.
  std::string session_problem;
  /// The last `kGameOutputBytes` of what it wrote to output and errors; once it has ended.
  std::string output;
};

/// One run of a game: its process, the lease of its build, and what it reports. Destroying the
/// object leaves a running game running, and its end unseen. Belongs to one thread.
class GameSession {
 public:
  /// Starts the active build with these arguments. Throws `not_installed`, `content_mismatch` (the
  /// program is missing or changed: verify and repair), `game_running` while the build is being
  /// changed, and what `ChildProcess`, `private_directory` and the stored manifest raise. A failure
  /// leaves nothing running.
  GameSession(const GameStore& store, const std::vector<std::string>& arguments);
  GameSession(GameSession&&) noexcept;
  GameSession& operator=(GameSession&&) noexcept;
  ~GameSession();

  const std::string& id() const noexcept;
  unsigned long long pid() const noexcept;

  /// Looks once: never blocks. When the game has ended, how it did is on disk before this returns.
  const GameReport& observe();

  /// Observes until the game has ended or `stop`, which may be empty, says so; it is asked about 20
  /// times a second. The game is not ended by this.
  const GameReport& wait(const std::function<bool()>& stop);

  /// Ends the process of the game as `ChildProcess::terminate` does.
  bool terminate(std::chrono::milliseconds grace);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// What the last start of the game was seen to do, from its session folder; nothing when it never
/// started. A start whose observer went away is `unknown`.
std::optional<GameStartSeen> last_game_start(const GameStore& store);

/// The output that was kept of a session; empty when none was.
std::string kept_game_output(const GameStore& store, std::string_view session_id);

/// Puts what was seen of the last start into the record, and takes old sessions away: all but the
/// newest 8 that have ended. Does not save.
void settle_game_sessions(GameWriter& writer);

}  // namespace tavro
