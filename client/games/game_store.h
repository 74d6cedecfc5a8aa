#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "documents/game_manifest.h"
#include "domain/error.h"
#include "games/game_paths.h"
#include "games/game_record.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// Told where a long work stands; false stops it at a safe boundary with `cancelled`. `done` and
/// `total` count the bytes of the phase. May be empty.
using GameProgress =
    std::function<bool(std::string_view phase, unsigned long long done, unsigned long long total)>;

/// One game in a data folder, for reading. Nothing is kept in memory, created or changed.
class GameStore {
 public:
  explicit GameStore(GamePaths paths) : paths_(std::move(paths)) {}

  const GamePaths& paths() const noexcept { return paths_; }

  /// The record; nothing when there is none. A record that cannot be read stays, and the failure
  /// names its file: the codes of `GameRecord::parse`, `read_file` and `parse_json`.
  std::optional<GameRecord> find() const;
  /// The record of an installed game. Throws `not_installed`, also while it is being removed.
  GameRecord installed() const;

  /// The stored manifest of a version, proved by its digest and for this game and platform. Throws
  /// `content_mismatch`, `platform_mismatch`, and what reading and parsing raise.
  GameManifest manifest(const GameVersion& version) const;

  /// The same, nothing when it is missing or damaged. One that its disk does not give back is a
  /// failure, since it may come back.
  std::optional<GameManifest> known_manifest(const GameVersion& version) const;

  /// The lease of a version: shared by whoever runs it, exclusive to change it. Waits a moment,
  /// since `is_running` of another process holds it for one, then throws `game_running`.
  std::unique_ptr<FileLock> lease(const GameVersion& version, LockMode mode) const;
  /// Whether anybody holds the lease now, for longer than such a look does. Creates nothing.
  bool is_running(const GameVersion& version) const;

 private:
  FileLock try_lease(const GameVersion& version, LockMode mode) const;

  GamePaths paths_;
};

/// The same for the one process that changes the game, for as long as the object lives. What an
/// earlier writer left of atomic writes is gone when it is made.
class GameWriter : public GameStore {
 public:
  /// Creates the folder of the game. Throws `busy` at once while another writer works.
  explicit GameWriter(GamePaths paths);

  /// As it stands on disk after the last `save`; a new one when there is none.
  GameRecord record;

  /// Stores `record` durably; one that says nothing more is removed.
  void save();

  /// Stores the manifest by its digest, durably, and answers the digest.
  void keep_manifest(const GameManifest& manifest) const;
  /// Takes away what was cut off while a manifest was stored, of whichever game.
  void clean_manifests() const;
  /// Removes a stored manifest that the record does not refer to.
  void drop_manifest(std::string_view manifest_ref) const;

  /// A document of this game, null when there is none.
  json document(const std::filesystem::path& path) const;
  /// Removes one durably.
  void drop(const std::filesystem::path& path) const;

  /// Takes away what waits in `record.retired`, does not run and can be proved; the rest waits for
  /// the next time. What is not the version's own stays with its folder.
  void sweep();
  /// The same for one version, whose exclusive lease the caller holds; the record is not saved.
  /// False when its folder stays as it is because no manifest tells what is the version's own. A
  /// manifest that cannot be read is a failure, with nothing changed.
  bool retire(const GameVersion& version);

 private:
  void clean_temporaries() const;

  FileLock lock_;
};

/// The same failure, with the file or folder that it is about.
[[noreturn]] void fail_about(const Error& error, const std::filesystem::path& path);

/// The digest by which a manifest is stored.
std::string manifest_reference(const GameManifest& manifest);

/// Seconds since 1970.
std::uint64_t game_clock();

}  // namespace tavro
