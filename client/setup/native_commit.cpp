#include "setup/native_commit.h"

#include <nlohmann/json.hpp>

#include <array>
#include <string>
#include <system_error>

#include "documents/theme_definition.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/bootstrap_paths.h"
#include "installation/installation_record.h"
#include "installation/installed_brand.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// How the client reaches the repository; see `TufClient` for what reads it.
std::string repository_record(const DataPaths& paths, const NativePackage& package) {
  const fs::path bundle = package.ca_bundle.empty() ? fs::path() : paths.repository_ca;
  const json record = {
      {"schema_version", 1}, {"origin", package.origin}, {"ca_bundle", path_utf8(bundle)}};
  return read_fields("unsafe_path",
                     "A repository with its own certificates needs a data folder "
                     "whose path is UTF-8 text",
                     [&] { return record.dump(); });
}

/// One installed part: where it lives, where its replacement is staged, where the old one goes.
struct Part {
  fs::path live;
  fs::path staged;
  fs::path aside;
};

/// Two renames, and between them the part is missing: the marker covers that. The names become
/// durable with the next document written beside them.
void swap_part(const Part& part) {
  if (stands(part.live)) native_files::rename_replace(part.live, part.aside);
  native_files::rename_replace(part.staged, part.live);
}

/// What the replaced bootstrap had staged for itself must not be applied to the new one.
void discard_bootstrap_update(const BootstrapPaths& update) {
  for (const auto& folder : {update.update, update.partial, update.downloads})
    remove_path_quietly(folder);
  for (const auto& file : {update.pending, update.rejected, update.old_files})
    native_files::remove_quietly(file);
}

void commit_bootstrap(const DataPaths& paths, const NativePackage& package) {
  swap_part({paths.bootstrap, paths.staging / "bootstrap", paths.staging / "old-bootstrap"});
  // Before the manifest: once that proves the new tree, a run that finishes a cut-off commit keeps
  // the bootstrap, and would keep the old one's update with it.
  discard_bootstrap_update(BootstrapPaths(paths.root));
  atomic_write(paths.bootstrap_manifest, package.bootstrap_descriptor);
}

void commit_icon(const DataPaths& paths, const NativePackage& package) {
  const fs::path icon = brand_icon_path(paths.root);
  if (package.brand_icon.empty())
    native_files::remove_quietly(icon);
  else
    atomic_write(icon, package.brand_icon);
}

/// A theme that the package does not have does not outlive the commit.
void commit_theme(const DataPaths& paths, const NativePackage& package) {
  const fs::path staged = paths.staging / "theme";
  const fs::path live = theme_directory(paths.root);
  remove_plain_tree(staged);
  if (!package.theme) {
    // As a part that is replaced: a link in it must not keep a repair from its end.
    if (stands(live)) native_files::rename_replace(live, paths.staging / "old-theme");
    return;
  }
  atomic_write(staged / kThemeDefinition, package.theme->definition);
  for (const auto& [name, bytes] : package.theme->files)
    atomic_write(staged / path_from_utf8(name), bytes);
  swap_part({live, staged, paths.staging / "old-theme"});
}

/// What a part was before is dropped whole: a link in it, which the proof of the staging folder
/// would refuse, goes as a link.
void drop_parts_moved_aside(const fs::path& staging) {
  for (const auto* name : {"old-bootstrap", "old-launcher", "old-trust", "old-theme"})
    remove_path_quietly(staging / name);
}

}  // namespace

void commit(const DataPaths& paths, const NativePackage& package, const InstallPlan& plan) {
  const std::string repository = repository_record(paths, package);
  mark_incomplete(paths);
  if (plan.bootstrap) commit_bootstrap(paths, package);
  if (plan.launcher)
    swap_part({paths.launcher, paths.staging / "launcher-root" / "launcher",
               paths.staging / "old-launcher"});
  if (plan.trust) swap_part({paths.trust, paths.staging / "trust", paths.staging / "old-trust"});

  // A bundle of an earlier package may stay: only what the record names is used.
  if (!package.ca_bundle.empty()) atomic_write(paths.repository_ca, package.ca_bundle);
  atomic_write(paths.repository, repository);
  commit_icon(paths, package);
  commit_theme(paths, package);

  // The record follows all that it describes, and the marker goes last: what a crash leaves before
  // that is unfinished, whatever it looks like.
  write_installation(paths, package);
  drop_parts_moved_aside(paths.staging);
  remove_plain_tree(paths.staging);
  clear_incomplete(paths);
  sync_directory(paths.root);
}

}  // namespace tavro
