#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "documents/game_catalog.h"
#include "games/game_plan.h"
#include "games/game_record.h"
#include "games/game_removal.h"
#include "games/game_repair.h"
#include "games/game_session.h"
#include "games/game_store.h"
#include "games/game_verify.h"

namespace tavro {

class TufClient;

/// Which build of a game, and who hears how it goes.
struct GameRequest {
  /// Empty for the game's own channel, which is "stable" at first. Another one becomes its own.
  std::string channel{};
  /// The SHA-256 of the bytes of a manifest, for a build that is not the newest; empty for that.
  std::string manifest_sha256{};
  /// Phases: "looking", "verifying", "reserving", "downloading", "unpacking".
  GameProgress progress{};
};

struct GameStatus {
  std::string game_id;
  bool installed = false;
  /// As its manifest names it; empty without one.
  std::string display_name;
  /// Empty while there is none.
  std::optional<GameRecord> record;
  /// Whether somebody holds the lease of the active build.
  bool running = false;
  std::optional<GameStartSeen> last_start;
  /// Folders below `versions` that the record does not know: they hold files of somebody else.
  std::vector<std::string> foreign_versions;
  /// Why the record cannot be read; it stays as it is.
  std::string problem;
};

/// What bringing in a build came to.
struct GameChange {
  std::string build_id;
  /// The build is the active one now.
  bool active = false;
  /// The build is staged whole, and waits for `finish_update`.
  bool staged = false;
  /// Something changed on disk.
  bool changed = false;
};

struct GameUpdate {
  std::string build_id;
  /// It differs from what is active.
  bool newer = false;
  /// The player put this build off.
  bool deferred = false;
  bool staged = false;
  GamePlan plan;
};

/// The games of one data folder: what a launcher's pages and commands are made of. One writer a
/// game at a time: `busy`. Each operation completes first what an earlier one left when it was cut
/// off, and none touches saves and state of a player but `remove` with `PlayerData::removed`.
/// Belongs to one thread; other processes may use the same folder meanwhile.
///
/// All operations throw `invalid_identity` for what is no identifier, and the codes of the record
/// and of the stored manifest (see game_store.h); those that change a game also those of
/// game_install.h; those that look for a channel's newest build `channel_locked` for one that the
/// catalogue locks and the player has not opened (see channel_unlock.h).
class GameLibrary {
 public:
  /// Touches nothing. Throws `unsafe_path` and `native_install_incomplete`.
  explicit GameLibrary(const std::filesystem::path& data_root);

  /// Every game with a record, by identifier; one whose record cannot be read says so in `problem`.
  std::vector<GameStatus> list() const;
  /// Also for a game that is not there.
  GameStatus status(std::string_view game_id) const;

  /// All games that the repository offers for this platform.
  GameCatalog available(TufClient& tuf) const;
  /// Whether the game's channel has another build than the active one, and what it would take.
  /// Throws `not_installed`.
  GameUpdate check(std::string_view game_id, TufClient& tuf) const;
  /// What an install or update would take now; nothing is created for a game that is not there.
  GamePlan plan(std::string_view game_id, TufClient& tuf, const GameRequest& request) const;

  /// Brings the build in and makes it the active one; of an installed game as `update`.
  GameChange install(std::string_view game_id, TufClient& tuf, const GameRequest& request) const;
  /// The same for an installed game: `not_installed`. While the game runs the build is only staged.
  GameChange update(std::string_view game_id, TufClient& tuf, const GameRequest& request) const;
  /// Everything but the activation.
  GameChange preload(std::string_view game_id, TufClient& tuf, const GameRequest& request) const;
  /// Activates what is staged, without the network; nothing staged changes nothing. Throws
  /// `game_running`.
  GameChange finish_update(std::string_view game_id, const GameProgress& progress) const;
  /// Takes a staged build and all that was downloaded of any away.
  void discard(std::string_view game_id) const;

  /// Compares every file of the active build; see game_verify.h. Changes nothing.
  GameDifferences verify(std::string_view game_id, const GameProgress& progress) const;
  /// Brings damaged and missing files anew. Throws `game_running`.
  GameRepair repair(std::string_view game_id, TufClient& tuf, const GameProgress& progress) const;
  /// Makes the previous build the active one, after a proof of its files; without the network. The
  /// build that was active is put off until another one comes. Throws `no_previous_build`,
  /// `content_mismatch`, `game_running`.
  GameChange roll_back(std::string_view game_id, const GameProgress& progress) const;

  /// Gives the way back up: takes the previous build away as soon as nothing runs from it.
  void forget_previous(std::string_view game_id) const;

  void set_channel(std::string_view game_id, const std::string& channel) const;
  /// Puts a build off until that time, in seconds since 1970; 0 until another build comes. An empty
  /// build takes it back.
  void defer(std::string_view game_id, const std::string& build_id, std::uint64_t until) const;

  /// See game_removal.h. Throws `not_installed` when there is nothing to remove.
  GameRemoval remove(std::string_view game_id, PlayerData saves) const;

  /// Starts the active build. See game_session.h.
  GameSession launch(std::string_view game_id, const std::vector<std::string>& arguments) const;
  /// The output that was kept of the last start, for a report of a crash.
  std::string last_output(std::string_view game_id) const;

 private:
  enum class Activation { now, later };

  GameStore store(std::string_view game_id) const;
  GameWriter writer(std::string_view game_id) const;
  /// The writer of an installed game.
  GameWriter owner(std::string_view game_id) const;
  GameRelease release(std::string_view game_id, TufClient& tuf, const GameRequest& request,
                      const std::string& own_channel) const;
  GameChange bring_in(GameWriter& game, TufClient& tuf, const GameRequest& request,
                      Activation activation) const;

  std::filesystem::path root_;
};

}  // namespace tavro
