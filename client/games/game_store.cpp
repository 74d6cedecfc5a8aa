#include "games/game_store.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "documents/game_catalog.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "games/game_verify.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/snapshot_retirement.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t manifest_folder_entries = 65536;
constexpr int lease_attempts = 10;
constexpr std::chrono::milliseconds lease_period{20};
constexpr int probe_attempts = 4;
constexpr std::chrono::milliseconds probe_period{5};

/// A lock whose failure reads as what it means here.
FileLock take_lock(const fs::path& path, LockMode mode, std::string_view code,
                   std::string_view meaning) {
  try {
    return FileLock(path, false, mode);
  } catch (const Error& error) {
    if (error.code != "busy") fail_about(error, path);
    fail(code, meaning);
  }
}

GameRecord found_or_new(const GameStore& store) {
  if (auto found = store.find()) return std::move(*found);
  GameRecord record;
  record.game_id = store.paths().game_id;
  record.channel = kDefaultGameChannel;
  return record;
}

/// The caller holds the lock of the folder.
void remove_cut_off_manifests(const fs::path& manifests) {
  std::size_t entries = 0;
  std::vector<fs::path> dead;
  for (const auto& entry : fs::directory_iterator(manifests)) {
    require(++entries <= manifest_folder_entries, "size_limit", "Too many stored manifests");
    const std::string name = path_utf8(entry.path().filename());
    constexpr std::size_t final_name = std::string_view("application-.json").size() + 64;
    if (name.starts_with("application-") && name.size() > final_name &&
        torn_write::is_temporary_name(name, name.substr(0, final_name)))
      dead.push_back(entry.path());
  }
  for (const fs::path& path : dead) native_files::remove_or_trash(path, {});
}

bool says_nothing(const GameRecord& record) {
  return !record.active && !record.previous && !record.preload && record.retired.empty() &&
         !record.removing;
}

}  // namespace

void fail_about(const Error& error, const fs::path& path) {
  throw Error(error.code, std::string(error.what()) + ": " + path_utf8(path), error.next_commands);
}

std::string manifest_reference(const GameManifest& manifest) {
  return digest(manifest.document.dump(), "sha256");
}

std::uint64_t game_clock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

std::optional<GameRecord> GameStore::find() const {
  if (!bears_name(paths_.record)) return std::nullopt;
  try {
    const std::string text = read_file(paths_.record, kGameRecordBytes);
    return GameRecord::parse(parse_json(text, kGameRecordBytes), paths_.game_id);
  } catch (const Error& error) {
    fail_about(error, paths_.record);
  }
}

GameRecord GameStore::installed() const {
  auto record = find();
  require(record && record->active && !record->removing, "not_installed",
          [&] { return "The game " + paths_.game_id + " is not installed"; });
  return std::move(*record);
}

GameManifest GameStore::manifest(const GameVersion& version) const {
  const fs::path path = paths_.manifest(version.manifest_ref);
  json document = parse_json(read_file(path, kMaxGameManifestBytes), kMaxGameManifestBytes);
  require(digest(document.dump(), "sha256") == version.manifest_ref, "content_mismatch",
          [&] { return "The stored game manifest changed: " + path_utf8(path); });
  GameManifest manifest = GameManifest::parse(std::move(document));
  require(manifest.game_id == paths_.game_id && manifest.build_id == version.build_id,
          "content_mismatch", "The stored manifest is that of another game or build");
  require(manifest.platform == native_platform(), "platform_mismatch",
          "Installed game build is for another platform");
  return manifest;
}

std::optional<GameManifest> GameStore::known_manifest(const GameVersion& version) const {
  try {
    return manifest(version);
  } catch (const Error& error) {
    const fs::path path = paths_.manifest(version.manifest_ref);
    const auto node = posix_files::node_at(path);
    const bool is_unread = error.code == "file_read" && node && S_ISREG(node->st_mode);
    if (is_unread || error.code == "platform_mismatch") fail_about(error, path);
    return std::nullopt;
  }
}

FileLock GameStore::try_lease(const GameVersion& version, LockMode mode) const {
  const std::string_view meaning = mode == LockMode::exclusive
                                       ? "The game is running; end it first"
                                       : "The game is being changed; wait until this has finished";
  return take_lock(paths_.lease(version.version), mode, "game_running", meaning);
}

std::unique_ptr<FileLock> GameStore::lease(const GameVersion& version, LockMode mode) const {
  for (int attempt = 1;; ++attempt) {
    try {
      return std::make_unique<FileLock>(try_lease(version, mode));
    } catch (const Error& error) {
      if (error.code != "game_running" || attempt == lease_attempts) throw;
    }
    std::this_thread::sleep_for(lease_period);
  }
}

bool GameStore::is_running(const GameVersion& version) const {
  const fs::path path = paths_.lease(version.version);
  const UniqueFd lease = posix_files::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (!lease && errno == ENOENT) return false;
  require(bool(lease), "lock_failed", [&, error = errno] {
    return "Cannot look whether the game runs" + posix_files::failed_because(path, error);
  });
  // Another look holds it for an instant, a game for longer.
  for (int attempt = 1; attempt <= probe_attempts; ++attempt) {
    if (retried([&] { return system_calls().flock(lease.get(), LOCK_EX | LOCK_NB); }) == 0)
      return false;
    require(errno == EWOULDBLOCK, "lock_failed",
            [&] { return "Cannot look whether the game runs: " + path_utf8(path); });
    std::this_thread::sleep_for(probe_period);
  }
  return true;
}

GameWriter::GameWriter(GamePaths paths)
    : GameStore(std::move(paths)),
      lock_(take_lock(this->paths().lock, LockMode::exclusive, "busy",
                      "Another program is changing this game; wait until it has finished")) {
  record = found_or_new(*this);
  for (const fs::path* folder : {&this->paths().versions, &this->paths().staging,
                                 &this->paths().downloads, &this->paths().manifests})
    private_directory(*folder);
  clean_temporaries();
}

void GameWriter::save() {
  if (says_nothing(record)) return drop(paths().record);
  const std::string text = record.to_json().dump();
  require(text.size() <= kGameRecordBytes, "size_limit", "The record of the game is too large");
  atomic_write(paths().record, text);
}

void GameWriter::keep_manifest(const GameManifest& manifest) const {
  const std::string text = manifest.document.dump();
  require(text.size() <= kMaxGameManifestBytes, "size_limit", "The game manifest is too large");
  const fs::path path = paths().manifest(digest(text, "sha256"));
  // The folder is shared by all games: whoever writes there holds its lock, so that under the lock
  // every temporary file is a dead one.
  const FileLock lock(paths().manifests_lock, true, LockMode::exclusive);
  remove_cut_off_manifests(paths().manifests);
  atomic_write(path, text);
}

void GameWriter::clean_manifests() const {
  const FileLock lock(paths().manifests_lock, true, LockMode::exclusive);
  remove_cut_off_manifests(paths().manifests);
}

void GameWriter::drop_manifest(std::string_view manifest_ref) const {
  if (record.refers_to(manifest_ref)) return;
  drop(paths().manifest(manifest_ref));
}

json GameWriter::document(const fs::path& path) const {
  if (!bears_name(path)) return nullptr;
  try {
    return parse_json(read_file(path, kGameRecordBytes), kGameRecordBytes);
  } catch (const Error& error) {
    fail_about(error, path);
  }
}

void GameWriter::drop(const fs::path& path) const {
  if (!bears_name(path)) return;
  native_files::remove_or_trash(path, {});
  sync_directory(path.parent_path());
}

void GameWriter::clean_temporaries() const {
  const std::array<const fs::path*, 4> documents = {&paths().record, &paths().download_record,
                                                    &paths().preparation, &paths().ready};
  std::vector<fs::path> dead;
  for (const auto& entry : fs::directory_iterator(paths().folder))
    for (const fs::path* document : documents)
      if (torn_write::is_temporary_name(path_utf8(entry.path().filename()),
                                        path_utf8(document->filename())))
        dead.push_back(entry.path());
  for (const fs::path& path : dead) native_files::remove_or_trash(path, {});
}

void GameWriter::sweep() {
  const std::vector<GameVersion> before = record.retired;
  for (const GameVersion& version : before) {
    try {
      const auto held = lease(version, LockMode::exclusive);
      retire(version);
    } catch (const std::exception&) {
      // It waits for the next time.
    }
  }
  if (record.retired != before) save();
}

bool GameWriter::retire(const GameVersion& version) {
  const fs::path folder = paths().version(version.version);
  const auto node = posix_files::node_at(folder);
  const bool is_folder = node && S_ISDIR(node->st_mode);
  // Without a manifest an earlier call got this far, or it was lost.
  const bool proved = bears_name(paths().manifest(version.manifest_ref));
  if (is_folder && proved) retire_snapshot_files(own_files(manifest(version), folder), folder);
  std::erase(record.retired, version);
  // The manifest goes before the record on disk forgets the version, so that nothing is left
  // unexplained; a further call finds the version's files gone, and needs it no more.
  drop_manifest(version.manifest_ref);
  // Whoever waited for this lease sees that its path no longer leads to it.
  drop(paths().lease(version.version));
  return proved || !is_folder;
}

}  // namespace tavro
