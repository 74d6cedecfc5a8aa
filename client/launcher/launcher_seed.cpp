#include "domain/crypto.h"
#include "domain/error.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/storage/storage_plan.h"
#include "platform/storage/storage_volume.h"

namespace tavro {
namespace {

bool is_new(const LauncherRecord& record, const std::filesystem::path& directory) {
  return record.generation == 0 && !record.active && !record.candidate && !record.rollback &&
         !record.attempt && !record.failed_candidate &&
         std::filesystem::is_empty(directory / "manifests") &&
         std::filesystem::is_empty(directory / "versions");
}

}  // namespace

json LauncherStore::seed_initial(std::string_view manifest_text,
                                 const std::filesystem::path& archive, const Progress& progress) {
  const auto held = owner();
  auto now = record();
  require(is_new(now, directory_), "already_installed",
          "Initial launcher seeding requires a new owned profile");
  const auto manifest =
      LauncherManifest::parse(parse_json(manifest_text, launcher_descriptor_bytes));
  require(manifest.platform == native_platform(), "launcher_incompatible",
          "Initial launcher targets another native platform");

  const auto name = digest(manifest_text, "sha256");
  const LauncherReference reference{name, manifest.build_id, {}};
  const auto target = payload(reference);
  require_path_room(root_, target, manifest.longest_native_path());
  const auto volume = inspect_storage_volume(directory_);
  require_install_storage(plan_install_storage(manifest, volume, true, 0, false), "launcher");

  atomic_create(child("manifests/" + name + ".json"), manifest_text);
  extract_snapshot(manifest, archive, target, progress);
  verify_snapshot_tree(manifest, target, progress);

  // The record comes last: until it names the version, the store is the empty one it was.
  now.candidate = reference;
  save(now);
  return reference.to_json();
}

}  // namespace tavro
