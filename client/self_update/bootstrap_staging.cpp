#include "self_update/bootstrap_staging.h"

#include <nlohmann/json.hpp>

#include <optional>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/bootstrap_paths.h"
#include "installation/data_folder.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"
#include "platform/storage/storage_plan.h"
#include "platform/storage/storage_volume.h"
#include "self_update/bootstrap_release.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// What staging needs on the way. It goes before and after: a download that was cut off is not gone
/// on with, and must not be joined by the next one's.
class Scratch {
 public:
  explicit Scratch(const BootstrapPaths& paths) : paths_(paths) { clear(); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() { clear(); }

 private:
  void clear() const {
    remove_path_quietly(paths_.downloads);
    remove_path_quietly(paths_.partial);
  }

  const BootstrapPaths& paths_;
};

/// The exact text of the published descriptor, or nothing when none is published.
std::optional<std::string> published_descriptor(const BootstrapPaths& paths, TufClient& tuf) {
  const std::string target = bootstrap_manifest_target();
  const std::optional<json> description = tuf.find_target(target);
  if (!description) return std::nullopt;
  require(description->at("length") <= bootstrap_descriptor_bytes, "size_limit",
          "Bootstrap update manifest exceeds 512 KiB");
  return read_file(tuf.download(target, paths.downloads, {}, {}, {}), bootstrap_descriptor_bytes);
}

/// What becomes of this descriptor, as `BootstrapStaging` says it.
std::string decision(const BootstrapPaths& paths, const std::string& text) {
  if (stands(paths.manifest) && read_file(paths.manifest, bootstrap_descriptor_bytes) == text)
    return "current";
  if (is_rejected_bootstrap(paths, text)) return "rejected";
  return "staged";
}

/// The repository signs the archive on its own, so that the descriptor cannot name another one.
void require_authorized(const SnapshotManifest& manifest, TufClient& tuf) {
  const json archive = tuf.target(manifest.archive_target);
  require(archive.at("length") == manifest.archive_length &&
              has_text(archive.at("hashes"), "sha256", manifest.archive_sha256),
          "content_mismatch",
          "Bootstrap archive is not authorized with its declared length and hash");
}

/// Puts the whole tree at `update`, on stable media.
void fetch_tree(const BootstrapPaths& paths, const SnapshotManifest& manifest, TufClient& tuf,
                const Progress& progress) {
  require_path_room(paths.root, paths.partial, manifest.longest_native_path());
  require_authorized(manifest, tuf);
  const fs::path native = paths.update.parent_path();
  const auto volume = inspect_storage_volume(native);
  require_install_storage(plan_install_storage(manifest, volume, false, 0, false), {});
  const auto archive = tuf.download(manifest.archive_target, paths.downloads, progress, {}, {});
  extract_snapshot(manifest, archive, paths.partial, progress);
  verify_snapshot_tree(manifest, paths.partial, progress);
  native_files::rename_replace(paths.partial, paths.update);
  sync_directory(native);
}

}  // namespace

BootstrapStaging stage_bootstrap_update(const fs::path& root, TufClient& tuf,
                                        const Progress& progress) {
  const BootstrapPaths paths(fs::absolute(root).lexically_normal());
  require(stands(DataPaths(paths.root).installation), "not_installed",
          [] { return branded("Bootstrap updates need an installed Tavro"); });
  require_complete_native_install(paths.root);
  const NativeFileLock lock(paths.lock, true, NativeLockSharing::read, LockMode::exclusive);
  if (stands(paths.pending)) return {false, "pending", {}};
  torn_write::remove_leftovers(paths.manifest.parent_path(), {paths.pending.filename().native(),
                                                              paths.rejected.filename().native(),
                                                              paths.old_files.filename().native()});
  // Without its record a tree is a leftover, also of a removal that was cut off.
  remove_path_quietly(paths.update);
  BootstrapStaging result;
  {
    const Scratch scratch(paths);
    const auto text = published_descriptor(paths, tuf);
    if (!text) return {false, "not_published", {}};
    const auto manifest = parse_bootstrap_update(*text);
    const std::string status = decision(paths, *text);
    result = {status == "staged", status, manifest.build_id};
    if (result.staged) {
      fetch_tree(paths, manifest, tuf, progress);
      // The update exists from here on, and not before.
      atomic_write(paths.pending, *text);
    }
  }
  remove_old_files(paths);
  return result;
}

}  // namespace tavro
