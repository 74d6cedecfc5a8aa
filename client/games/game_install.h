#pragma once

#include <functional>
#include <optional>

#include "games/game_archive.h"
#include "games/game_plan.h"
#include "games/game_release.h"
#include "games/game_store.h"

namespace tavro {

/// How a build comes to stand in a data folder, step by step, for the one writer of the game. A
/// preparation document goes before the tree, a readiness document before its use; each step that
/// was cut off is completed or taken back by `settle`, which goes before everything else.
class GameInstall {
 public:
  GameInstall(GameWriter& writer, const GameProgress& progress)
      : writer_(writer), progress_(progress) {}

  /// Completes an activation that began, takes a preparation back that did not become ready, and
  /// takes retired versions away that nothing runs from. A tree that holds what nobody reserved, or
  /// that was copied from elsewhere, is preserved, and the failure says so, as those of
  /// install_preparation.h do, and what to do by hand.
  void settle();

  /// What staging this release takes now.
  GamePlan plan(const GameRelease& release) const;

  /// Brings the release to where `activate` is all that is missing; a staged other one makes room.
  /// A failure leaves the fetched part of the archive, for the next call to go on from. Throws
  /// `game_storage_full` when too many builds wait to be taken away, as `activate` does.
  void stage(TufClient& tuf, const GameRelease& release);

  /// The release that is staged whole.
  std::optional<GameVersion> staged() const;

  /// Makes the staged build the active one, and the active one the previous.
  void activate();

  /// Takes the staged build and all downloads away.
  void discard();

  /// Reserves and fills a tree of these files of a release under a preparation document, which is
  /// there while `use` runs, and afterwards is taken back together with what is left of the tree.
  void with_tree(const GameVersion& version, const GameManifest& manifest,
                 const SnapshotManifest& part, const std::function<void(ReservedTree&)>& use);

 private:
  void settle_documents();
  void follow_move();
  void adopt_copy(json& identity, const GameVersion& version) const;
  void settle_preparation(const json& preparation);
  void settle_ready(const GameVersion& version);
  /// With the folder to look into, and what to do there.
  void explained(const std::function<void()>& work) const;
  void take_back(const json& document, const GameVersion& version) const;
  void require_place_for_retired() const;
  void record_activation(const GameVersion& version);
  void finish_activation(const GameVersion& version);
  void bring_in(TufClient& tuf, const GameRelease& release);
  bool has_sound_stage(const GameRelease& release);

  GameWriter& writer_;
  const GameProgress& progress_;
};

}  // namespace tavro
