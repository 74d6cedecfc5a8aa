#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.h"
#include "games/game_history.h"
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
/// object leaves a running game running and protected, and its end unseen: the game itself holds
/// the lease as its standard input, with all that it starts and that keeps this input. Belongs to
/// one thread.
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

}  // namespace tavro
