#include "installation/bootstrap_paths.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <vector>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "installation/installation_record.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_entries = 250000;

/// What the working bootstrap holds; nothing when its manifest cannot tell.
SnapshotManifest readable_bootstrap(const BootstrapPaths& paths) {
  try {
    return working_bootstrap(paths).value_or(SnapshotManifest());
  } catch (const std::exception&) {
    return {};
  }
}

/// Everything below `installed` with the extension, in the order of the walk. A walk that cannot
/// begin is noted in `error`.
std::vector<fs::path> replaced_files(const BootstrapPaths& paths, std::error_code& error) {
  const auto bootstrap = readable_bootstrap(paths);
  std::vector<fs::path> found;
  std::size_t entries = 0;
  for (fs::recursive_directory_iterator entry(paths.installed, error), end; entry != end; ++entry) {
    require(++entries <= max_entries, "size_limit", "Directory entry count exceeds bounds");
    const fs::path& path = entry->path();
    if (path.extension() != replaced_extension) continue;
    if (!bootstrap.files.contains(path.lexically_relative(paths.installed))) found.push_back(path);
  }
  return found;
}

bool removed(const fs::path& path) {
  try {
    return native_files::remove_or_trash(path, {});
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

BootstrapPaths::BootstrapPaths(const fs::path& data_root)
    : root(data_root),
      installed(DataPaths(root).bootstrap),
      manifest(DataPaths(root).bootstrap_manifest),
      update(root / "native" / "bootstrap-update"),
      partial(root / "native" / "bootstrap-update.partial"),
      pending(root / "native" / "bootstrap-update.json"),
      downloads(root / "native" / "bootstrap-downloads"),
      rejected(root / "native" / "bootstrap-update.rejected"),
      lock(root / "native" / "bootstrap-update.lock"),
      old_files(root / "native" / "bootstrap-old-files") {}

std::optional<SnapshotManifest> working_bootstrap(const BootstrapPaths& paths) {
  if (!stands(paths.manifest)) return std::nullopt;
  return current_bootstrap(DataPaths(paths.root));
}

void remove_old_files(const BootstrapPaths& paths) {
  std::error_code error;
  if (!fs::is_directory(fs::symlink_status(paths.installed, error))) return;
  const auto replaced = replaced_files(paths, error);
  // Children first: what was replaced may be a folder.
  const auto left = std::count_if(replaced.rbegin(), replaced.rend(),
                                  [](const auto& path) { return !removed(path); });
  if (!error && left == 0)
    removed(paths.old_files);
  else if (!stands(paths.old_files))
    atomic_write(paths.old_files, {});
}

}  // namespace tavro
