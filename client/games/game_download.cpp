#include "games/game_download.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
#include "platform/files/durable_files.h"
#include "platform/files/held_directory.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/host/system_calls.h"
#include "platform/storage/storage_volume.h"
#include "tuf/download_record.h"
#include "tuf/metadata.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char kind[] = "tavro-game-downloads";
constexpr std::size_t max_entries = 32;
constexpr std::size_t folder_entries = 4096;
constexpr unsigned long long block_bytes = 512;

json proved(const json& document) {
  if (document.is_null()) return json::array();
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "The record of this game's downloads has another schema; it was kept");
  return read_fields("invalid_state", "The record of this game's downloads is malformed", [&] {
    const json& entries = document.at("downloads");
    require(has_text(document, "kind", kind) && entries.is_array() && entries.size() <= max_entries,
            "invalid_state", "The record of this game's downloads is malformed");
    for (const json& entry : entries) {
      // Both are removed by these names.
      validate_relative_path(text_member(entry, "target"), true);
      validate_relative_path(text_member(entry, "temporary"), true);
      require(text_member(entry, "temporary").starts_with(text_member(entry, "target") + "."),
              "invalid_state", "The record of this game's downloads is malformed");
      static_cast<void>(entry.at("length").get<std::uint64_t>());
      static_cast<void>(text_member(entry, "sha256"));
    }
    return entries;
  });
}

unsigned long long blocks_of(const fs::path& path) {
  const auto node = posix_files::node_at(path);
  return node && S_ISREG(node->st_mode)
             ? static_cast<unsigned long long>(node->st_blocks) * block_bytes
             : 0;
}

bool is_of(const json& entry, const GameTarget& target) {
  return entry.at("target") == target.path && entry.at("sha256") == target.sha256;
}

/// What a partial file belongs to.
std::string scope_of(const GameTarget& target, const std::string& manifest_ref) {
  return canonical_json({{"kind", kind}, {"target", target.path}, {"reference", manifest_ref}});
}

/// What a kill left of writing a resume record, or of removing a file. In a folder that somebody
/// filled with files of his own it is not worth the search.
void remove_torn_records(const fs::path& folder, const std::string& record) {
  std::vector<fs::path> dead;
  std::size_t entries = 0;
  for (const auto& found : fs::directory_iterator(folder)) {
    if (++entries > folder_entries) break;
    const std::string name = path_utf8(found.path().filename());
    const auto node = posix_files::node_at(found.path());
    if (torn_write::is_temporary_name(name, record) ||
        (node && posix_files::is_set_aside(name, *node)))
      dead.push_back(found.path());
  }
  for (const fs::path& path : dead) native_files::remove_or_trash(path, {});
}

void require_room(const fs::path& directory, unsigned long long bytes) {
  const StorageVolume volume = inspect_storage_volume(directory);
  // A volume in memory without a bound tells no capacity.
  require(volume.capacity_bytes == 0 || bytes <= volume.available_bytes, "insufficient_space", [&] {
    return "The download needs " + std::to_string(bytes - volume.available_bytes) +
           " more bytes at " + path_utf8(directory) + "; free space first";
  });
}

}  // namespace

void require_authorized(TufClient& tuf, const GameTarget& target) {
  const json description = tuf.target(target.path);
  require(length(description) == target.length &&
              has_text(description.at("hashes"), "sha256", target.sha256),
          "content_mismatch", [&] {
            return "The repository signs another file than the release names: " + target.path;
          });
}

GameDownloads::GameDownloads(const GameWriter& writer)
    : writer_(writer), entries_(proved(writer.document(writer.paths().download_record))) {}

fs::path GameDownloads::fetch(TufClient& tuf, const GameTarget& target,
                              const std::string& manifest_ref, const GameProgress& progress,
                              std::string_view phase) {
  require_authorized(tuf, target);
  const fs::path& directory = writer_.paths().downloads;
  // A partial file that is gone on with names this release in its own record, which was proved: it
  // is recorded anew where the document of this game was lost.
  const DownloadObserver observer = [&](std::string_view, const json&, std::string_view temporary) {
    note(target, temporary);
  };
  TufDownloadOptions options;
  options.resume_scope = scope_of(target, manifest_ref);
  options.admission = [&](const DownloadAdmission& state) {
    if (!state.complete)
      require_room(directory,
                   target.length - std::min<unsigned long long>(target.length, state.allocated));
  };
  const Progress counted = [&](auto done, auto total) {
    return !progress || progress(phase, done, total);
  };
  return tuf.download(target.path, directory, counted, observer, std::move(options));
}

GameOnDisk GameDownloads::on_disk(const GameTarget& target, const std::string& manifest_ref) const {
  GameOnDisk most;
  for (const json& entry : entries_) {
    if (!is_of(entry, target)) continue;
    const GameOnDisk found = on_disk_of(entry, target, manifest_ref);
    if (found.allocated != 0 && found.received >= most.received) most = found;
  }
  return most;
}

/// A partial file counts as its own record says. One without, or of another release, is never gone
/// on with.
GameOnDisk GameDownloads::on_disk_of(const json& entry, const GameTarget& target,
                                     const std::string& manifest_ref) const {
  const fs::path& directory = writer_.paths().downloads;
  try {
    const fs::path file = safe_join(directory, target.path, true);
    if (posix_files::node_at(file)) return {target.length, blocks_of(file)};
    const std::string& temporary = text_member(entry, "temporary");
    const fs::path partial = safe_join(directory, temporary, true);
    const auto node = posix_files::node_at(partial);
    const fs::path state = safe_join(directory, resume_record_name(temporary), true);
    const ResumeRecord record = ResumeRecord::parse(
        parse_json(read_file(state, kResumeRecordBytes), kResumeRecordBytes), temporary);
    const bool resumable =
        node && record.target == target.path && record.authorization.length == target.length &&
        has_text(record.authorization.hashes, "sha256", target.sha256) &&
        record.scope_sha256 == digest(scope_of(target, manifest_ref), "sha256") &&
        record.device == node->st_dev && record.inode == node->st_ino;
    if (resumable) return {record.received, blocks_of(partial)};
  } catch (const Error&) {
    // What cannot be read cannot be gone on with.
  }
  return {};
}

bool GameDownloads::knows(const GameTarget& target, std::string_view temporary) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const json& entry) {
    return is_of(entry, target) && (temporary.empty() || entry.at("temporary") == temporary);
  });
}

/// A file that stood there already comes with a name of no file; if it is recorded, that is enough.
void GameDownloads::note(const GameTarget& target, std::string_view temporary) {
  const bool names_no_file = !bears_name(writer_.paths().downloads / temporary) &&
                             bears_name(writer_.paths().downloads / target.path);
  if (knows(target, names_no_file ? std::string_view() : temporary)) return;
  std::vector<json> kept;
  for (const json& entry : entries_)
    if (!is_gone(entry)) kept.push_back(entry);
  require(kept.size() < max_entries, "download_ownership",
          "Too many downloads of this game are under way; discard them");
  entries_ = kept;
  entries_.push_back({{"target", target.path},
                      {"temporary", temporary},
                      {"length", target.length},
                      {"sha256", target.sha256}});
  store();
}

void GameDownloads::store() const {
  const json document = {{"schema_version", 1}, {"kind", kind}, {"downloads", entries_}};
  atomic_write(writer_.paths().download_record, document.dump());
}

bool GameDownloads::is_gone(const json& entry) const {
  const fs::path& directory = writer_.paths().downloads;
  const std::string& temporary = text_member(entry, "temporary");
  return !bears_name(safe_join(directory, text_member(entry, "target"), true)) &&
         !bears_name(safe_join(directory, temporary, true)) &&
         !bears_name(safe_join(directory, resume_record_name(temporary), true));
}

void GameDownloads::forget() {
  forget_where([](const json&) { return true; });
}

void GameDownloads::forget(const std::vector<GameTarget>& targets) {
  forget_where([&](const json& entry) {
    return std::any_of(targets.begin(), targets.end(),
                       [&](const GameTarget& target) { return is_of(entry, target); });
  });
}

void GameDownloads::forget_but(const std::vector<GameTarget>& targets,
                               const std::string& manifest_ref) {
  forget_where([&](const json& entry) {
    return std::none_of(targets.begin(), targets.end(), [&](const GameTarget& target) {
      return is_of(entry, target) && on_disk_of(entry, target, manifest_ref).allocated != 0;
    });
  });
}

void GameDownloads::forget_where(const std::function<bool(const json& entry)>& unwanted) {
  std::vector<json> kept;
  for (const json& entry : entries_)
    if (unwanted(entry))
      remove_files(entry);
    else
      kept.push_back(entry);
  if (kept.size() == entries_.size() && !kept.empty()) return;
  entries_ = kept;
  if (kept.empty())
    writer_.drop(writer_.paths().download_record);
  else
    store();
}

void GameDownloads::remove_files(const json& entry) const {
  const fs::path& directory = writer_.paths().downloads;
  const std::string record = resume_record_name(text_member(entry, "temporary"));
  const fs::path folder = safe_join(directory, record, true).parent_path();
  std::error_code ignored;
  if (!fs::is_directory(folder, ignored)) return;
  for (const std::string& name :
       {text_member(entry, "temporary"), record, std::string(text_member(entry, "target"))})
    native_files::remove_or_trash(safe_join(directory, name, true), {});
  remove_torn_records(folder, path_utf8(fs::path(record).filename()));
  sync_directory(folder);
  // Folders that nothing needs any more; one that holds something else stays.
  for (fs::path empty = folder; empty != directory; empty = empty.parent_path())
    if (retried([&] { return system_calls().unlinkat(AT_FDCWD, empty.c_str(), AT_REMOVEDIR); }) !=
        0)
      break;
}

}  // namespace tavro
