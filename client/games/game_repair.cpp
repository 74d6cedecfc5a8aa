#include "games/game_repair.h"

#include <sys/stat.h>

#include <optional>
#include <set>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "games/game_verify.h"
#include "platform/files/directory_commit.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

SnapshotManifest part_of(const GameManifest& manifest, const std::vector<std::string>& files) {
  SnapshotManifest part;
  for (const std::string& path : files) {
    const PackageFile& declared = manifest.files.at(path);
    part.files.emplace(path, declared);
    part.expanded_length += declared.length;
  }
  return part;
}

/// A new name beside it; what stands there is moved as it is, whatever it is.
std::string set_aside(const fs::path& path, const std::string& relative) {
  const std::string ending = ".kept-" + random_id();
  native_files::rename_replace(path, path.native() + ending);
  return relative + ending;
}

/// Moves the new files to their places, each in one step.
class Replacement {
 public:
  Replacement(const fs::path& from, const fs::path& to) : from_(from), to_(to) {}

  /// Also of a folder that was taken away as a whole.
  void begin() const { private_directory(to_); }

  void move(const std::string& relative) {
    make_parents(relative);
    const fs::path target = to_ / relative;
    const auto node = posix_files::node_at(target);
    if (node && !S_ISREG(node->st_mode)) done.set_aside.push_back(set_aside(target, relative));
    native_files::rename_replace(from_ / relative, target);
    changed_.insert(target.parent_path());
    ++done.replaced;
  }

  void make_durable() const {
    for (const fs::path& folder : changed_) sync_directory(folder);
  }

  GameRepair done;

 private:
  /// A folder of the build that became something else is set aside like a file.
  void make_parents(const std::string& relative) {
    for (auto end = relative.find('/'); end != relative.npos; end = relative.find('/', end + 1)) {
      const std::string folder = relative.substr(0, end);
      const auto node = posix_files::node_at(to_ / folder);
      if (node && !S_ISDIR(node->st_mode))
        done.set_aside.push_back(set_aside(to_ / folder, folder));
      private_directory(to_ / folder);
    }
  }

  const fs::path from_;
  const fs::path to_;
  std::set<fs::path> changed_;
};

/// The manifest of the build as the repository offers it, by the names it may have there.
std::optional<GameManifest> offered_manifest(const GameWriter& writer, TufClient& tuf,
                                             const GameProgress& progress) {
  const GameVersion& active = *writer.record.active;
  GameOffers offers(writer.paths().root, tuf, progress);
  const std::string origin = path_utf8(fs::path(active.manifest_target).stem());
  for (const std::string& name : std::set{origin, writer.record.channel, active.manifest_ref}) {
    try {
      GameRelease release = offers.release(writer.paths().game_id, name);
      if (release.manifest_ref == active.manifest_ref) return std::move(release.manifest);
    } catch (const Error& error) {
      if (error.code != "game_not_published" && error.code != "content_mismatch") throw;
    }
  }
  return std::nullopt;
}

GameManifest sound_manifest(const GameWriter& writer, TufClient& tuf,
                            const GameProgress& progress) {
  const GameVersion& active = *writer.record.active;
  if (auto known = writer.known_manifest(active)) return std::move(*known);
  auto offered = offered_manifest(writer, tuf, progress);
  require(offered.has_value(), "content_mismatch", [&] {
    return "The manifest of this build was lost, and the repository does not offer the build any "
           "more; update the game: " +
           path_utf8(writer.paths().manifest(active.manifest_ref));
  });
  writer.keep_manifest(*offered);
  return std::move(*offered);
}

GameRepair replace_files(GameWriter& writer, TufClient& tuf, const GameManifest& manifest,
                         const std::vector<std::string>& files, const GameProgress& progress) {
  const GamePaths& paths = writer.paths();
  const GameVersion active = *writer.record.active;
  const SnapshotManifest part = part_of(manifest, files);
  GameArchive archive(manifest, active.manifest_ref);
  archive.require_published(tuf);
  const GameOnDisk on_disk = GameDownloads(writer).on_disk(archive.target(), active.manifest_ref);
  require_room(plan_game_files(manifest, part, archive.target(), on_disk, paths.staging),
               paths.game_id);
  GameVersion work = active;
  work.version = random_id();
  Replacement replacement(paths.staged(work.version), paths.version(active.version));
  GameInstall(writer, progress).with_tree(work, manifest, part, [&](ReservedTree& tree) {
    GameDownloads downloads(writer);
    archive.fetch(tuf, downloads, progress);
    archive.extract(part, tree, progress);
    replacement.begin();
    for (const std::string& path : files) replacement.move(path);
    replacement.make_durable();
  });
  return replacement.done;
}

}  // namespace

GameRepair repair_game(GameWriter& writer, TufClient& tuf, const GameProgress& progress) {
  const GameVersion active = *writer.record.active;
  const GameManifest manifest = sound_manifest(writer, tuf, progress);
  const fs::path folder = writer.paths().version(active.version);
  const auto differences = compare_game_files(manifest, folder, [&](auto done, auto total) {
    return !progress || progress("verifying", done, total);
  });
  GameRepair repair;
  if (!differences.is_sound())
    repair = replace_files(writer, tuf, manifest, differences.to_repair, progress);
  // What was fetched for it, now or by one that was cut off, is of no use any more.
  GameDownloads(writer).forget(GameArchive(manifest, active.manifest_ref).targets());
  return repair;
}

}  // namespace tavro
