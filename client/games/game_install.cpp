#include "games/game_install.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>

#include <exception>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "games/game_verify.h"
#include "platform/archives/snapshot.h"
#include "platform/files/directory_commit.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"
#include "platform/storage/install_preparation.h"
#include "platform/storage/storage_volume.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

GameVersion version_of(const json& document) {
  return GameVersion::parse(document.at("reference"));
}

Progress in_phase(const GameProgress& progress, std::string_view phase) {
  return [&progress, phase](auto done, auto total) {
    return !progress || progress(phase, done, total);
  };
}

/// Whether a tree was left as it is, since nobody knows whose it is.
bool is_preserved(std::string_view code) {
  return code == "allocation_changed" || code == "unexpected_file" ||
         code == "install_preparation_state" || code == "install_ready_state";
}

}  // namespace

std::optional<GameVersion> GameInstall::staged() const {
  const json ready = writer_.document(writer_.paths().ready);
  if (ready.is_null()) return std::nullopt;
  validate_install_ready(ready);
  return version_of(ready);
}

void GameInstall::settle() {
  // Retired builds may have been what there was no room for.
  writer_.sweep();
  follow_move();
  explained([&] { settle_documents(); });
}

void GameInstall::explained(const std::function<void()>& work) const {
  try {
    work();
  } catch (const Error& error) {
    if (!is_preserved(error.code)) fail_about(error, writer_.paths().staging);
    fail(error.code, std::string(error.what()) + "; move what lies in " +
                         path_utf8(writer_.paths().staging) + " away and try again");
  }
}

/// The documents name the place and the volume of their tree. The place changes when the data
/// folder is moved, and a volume may get another number when the machine starts anew: both are what
/// holds the document now, and the tree is known by its inode and by what is in it.
void GameInstall::follow_move() {
  const GamePaths& paths = writer_.paths();
  for (const fs::path* path : {&paths.preparation, &paths.ready}) {
    json document = writer_.document(*path);
    if (document.is_null()) continue;
    if (path == &paths.ready)
      validate_install_ready(document);
    else
      validate_install_preparation(document, nullptr);
    const json before = document;
    document["versions_path"] = path_utf8(paths.versions);
    json& identity = document["staging_identity"];
    if (!identity.is_null()) identity[0] = inspect_storage_directory(paths.versions)[0];
    const GameVersion version = version_of(document);
    if (path == &paths.ready && writer_.record.active != version) adopt_copy(identity, version);
    if (document != before) atomic_write(*path, document.dump());
  }
}

/// In a copy of the data folder the tree is another one, and as good where all of it is right.
void GameInstall::adopt_copy(json& identity, const GameVersion& version) const {
  const GamePaths& paths = writer_.paths();
  fs::path tree = paths.staged(version.version);
  if (!bears_name(tree)) tree = paths.version(version.version);
  if (!bears_name(tree)) return;
  const json found = inspect_storage_directory(tree);
  if (found == identity) return;
  const auto differences =
      compare_game_files(writer_.manifest(version), tree, in_phase(progress_, "verifying"));
  require(differences.is_sound() && differences.foreign_count == 0, "allocation_changed", [&] {
    return "This is not the build that was staged; move it away and try again: " + path_utf8(tree);
  });
  identity = found;
}

void GameInstall::settle_documents() {
  const json preparation = writer_.document(writer_.paths().preparation);
  const auto version = staged();
  // That of the staged build itself only waits to be dropped; a repair beside it has its own.
  if (!preparation.is_null() && (!version || version_of(preparation) != *version))
    settle_preparation(preparation);
  if (version) settle_ready(*version);
}

void GameInstall::settle_preparation(const json& preparation) {
  validate_install_preparation(preparation, nullptr);
  const GameVersion version = version_of(preparation);
  const GamePaths& paths = writer_.paths();
  const fs::path tree = paths.staged(version.version);
  // A folder that came into being and was not recorded any more is empty; only such a one goes.
  if (preparation.at("staging_identity").is_null())
    retried([&] { return system_calls().unlinkat(AT_FDCWD, tree.c_str(), AT_REMOVEDIR); });
  take_back(preparation, version);
  writer_.drop_manifest(version.manifest_ref);
  writer_.drop(paths.preparation);
}

/// Takes a staged tree away: as far as it holds nothing but the files of its manifest, or, where
/// that was lost, as the very folder that the document names.
void GameInstall::take_back(const json& document, const GameVersion& version) const {
  const fs::path tree = writer_.paths().staged(version.version);
  if (!bears_name(tree)) return;
  constexpr char changed[] = "allocation_changed";
  const json& recorded = document.at("staging_identity");
  require(!recorded.is_null(), changed, "A staged folder that nobody recorded was preserved");
  const auto identity = recorded.get<TreeIdentity>();
  if (const auto known = writer_.known_manifest(version))
    dispose_install_root(tree, identity, ready_tree(*known, tree, identity));
  else
    require(remove_identified_tree(tree, identity), changed,
            "A staged folder that is not the recorded one was preserved");
}

void GameInstall::settle_ready(const GameVersion& version) {
  const GamePaths& paths = writer_.paths();
  if (writer_.record.active == version) return finish_activation(version);
  const bool is_staged = bears_name(paths.staged(version.version));
  // A tree that left its stage for this place was proved by `follow_move`; beside the stage it is
  // another one.
  if (!is_staged && bears_name(paths.version(version.version))) return record_activation(version);
  writer_.drop(paths.preparation);
  if (!is_staged) discard();
}

GamePlan GameInstall::plan(const GameRelease& release) const {
  const GameArchive archive(release.manifest, release.manifest_ref);
  const auto on_disk = GameDownloads(writer_).on_disk(archive.target(), release.manifest_ref);
  return plan_game_files(release.manifest, release.manifest, archive.target(), on_disk,
                         writer_.paths().staging);
}

/// A stage that stood for a while is proved again; one that was damaged makes room for a new one.
bool GameInstall::has_sound_stage(const GameRelease& release) {
  const auto version = staged();
  if (!version) return false;
  try {
    if (version->manifest_ref == release.manifest_ref) {
      verify_snapshot_tree(release.manifest, writer_.paths().staged(version->version),
                           in_phase(progress_, "verifying"));
      return true;
    }
  } catch (const Error& error) {
    // Anything else may be over the next time, or is somebody else's.
    const bool is_damaged = error.code == "content_mismatch" || error.code == "missing_file" ||
                            error.code == "content_mode";
    if (!is_damaged) throw;
  }
  discard();
  return false;
}

void GameInstall::stage(TufClient& tuf, const GameRelease& release) {
  require_place_for_retired();
  if (!has_sound_stage(release)) bring_in(tuf, release);
  GameDownloads(writer_).forget();
}

void GameInstall::bring_in(TufClient& tuf, const GameRelease& release) {
  GameArchive archive(release.manifest, release.manifest_ref);
  archive.require_published(tuf);
  // What was fetched of other releases is of no use any more, and its space may be missing.
  GameDownloads(writer_).forget_but(archive.targets(), release.manifest_ref);
  require_room(plan(release), release.manifest.game_id);
  const GamePaths& paths = writer_.paths();
  const GameVersion version{random_id(), release.manifest.build_id, release.manifest_ref,
                            release.manifest_target};
  require_path_room(paths.root, paths.version(version.version),
                    release.manifest.longest_native_path());
  with_tree(version, release.manifest, release.manifest, [&](ReservedTree& tree) {
    GameDownloads downloads(writer_);
    archive.fetch(tuf, downloads, progress_);
    archive.extract(release.manifest, tree, progress_);
    const json ready =
        make_install_ready(release.manifest, version.to_json(), paths.versions, tree);
    atomic_write(paths.ready, ready.dump());
  });
}

void GameInstall::with_tree(const GameVersion& version, const GameManifest& manifest,
                            const SnapshotManifest& part,
                            const std::function<void(ReservedTree&)>& use) {
  const GamePaths& paths = writer_.paths();
  json preparation = make_install_preparation(manifest, version.to_json(), paths.versions);
  atomic_write(paths.preparation, preparation.dump());
  try {
    writer_.keep_manifest(manifest);
    ReservedTree tree(part, paths.staged(version.version), in_phase(progress_, "reserving"),
                      [&](const TreeIdentity& identity) {
                        record_install_preparation(preparation, identity);
                        atomic_write(paths.preparation, preparation.dump());
                      });
    use(tree);
  } catch (...) {
    // The space is given back at once where that works; the next call does it otherwise.
    try {
      settle();
    } catch (const std::exception&) {
    }
    throw;
  }
  settle();
}

void GameInstall::activate() {
  const auto version = staged();
  require(version.has_value(), "not_staged", "No build of this game waits to be activated");
  require_place_for_retired();
  const GamePaths& paths = writer_.paths();
  const fs::path tree = paths.staged(version->version);
  require(
      writer_.document(paths.ready).at("staging_identity") == json(inspect_storage_directory(tree)),
      "allocation_changed", [&] {
        return "This is not the build that was staged; move it away and try again: " +
               path_utf8(tree);
      });
  commit_private_path_new(tree, paths.version(version->version), {});
  sync_directory(paths.staging);
  sync_directory(paths.versions);
  record_activation(*version);
}

/// Before anything is changed; what has been changed is put on record in any case.
void GameInstall::require_place_for_retired() const {
  require(writer_.record.retired.size() < kMaxRetiredVersions, "game_storage_full", [&] {
    return "Too many old builds of this game could not be taken away; see " +
           path_utf8(writer_.paths().versions);
  });
}

void GameInstall::record_activation(const GameVersion& version) {
  GameRecord& record = writer_.record;
  if (record.previous) record.retired.push_back(*record.previous);
  record.previous = std::exchange(record.active, version);
  record.preload.reset();
  record.deferral.reset();
  writer_.save();
  finish_activation(version);
}

void GameInstall::finish_activation(const GameVersion& version) {
  const GamePaths& paths = writer_.paths();
  // It is on record: only a tree that stands where the staged one stood has to be proved.
  take_back(writer_.document(paths.ready), version);
  GameDownloads(writer_).forget();
  // The documents go last: until then they explain the others.
  writer_.drop(paths.preparation);
  writer_.drop(paths.ready);
  writer_.sweep();
}

void GameInstall::discard() {
  follow_move();
  const GamePaths& paths = writer_.paths();
  const auto version = staged();
  if (version) explained([&] { take_back(writer_.document(paths.ready), *version); });
  GameDownloads(writer_).forget();
  const bool was_recorded = writer_.record.preload.has_value();
  writer_.record.preload.reset();
  if (version) writer_.drop_manifest(version->manifest_ref);
  if (was_recorded) writer_.save();
  writer_.drop(paths.preparation);
  writer_.drop(paths.ready);
}

}  // namespace tavro
