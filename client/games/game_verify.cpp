#include "games/game_verify.h"

#include <sys/stat.h>

#include <string_view>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/archives/snapshot.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long max_entries = 250000;

void list(std::vector<std::string>& names, unsigned long long& count, std::string_view name) {
  if (count++ < kListedDifferences) names.emplace_back(name);
}

/// Where the file stands, or nothing when a link or another file is in the way.
fs::path reached(const fs::path& root, const std::string& relative) {
  try {
    return safe_join(root, relative, true);
  } catch (const Error& error) {
    if (error.code != "unsafe_path") throw;
    return {};
  }
}

enum class Found { right, wrong, nothing };

Found compare(const fs::path& path, const PackageFile& declared, const Progress& progress) {
  const auto node = path.empty() ? std::nullopt : posix_files::node_at(path);
  if (!node || !S_ISREG(node->st_mode)) return Found::nothing;
  if (static_cast<std::uint64_t>(node->st_size) != declared.length) return Found::wrong;
  if (declared.executable && (node->st_mode & S_IXUSR) == 0) return Found::wrong;
  try {
    return digest_file_progress(path, "sha256", progress) == declared.sha256 ? Found::right
                                                                             : Found::wrong;
  } catch (const Error& error) {
    if (error.code == "cancelled") throw;
    return Found::wrong;
  }
}

void list_foreign(GameDifferences& differences, const SnapshotManifest& manifest,
                  const fs::path& root) {
  walk_tree(root, max_entries, "The folder of the game holds too many entries",
            [&](const fs::directory_entry& entry, std::string_view relative) {
              const bool linked = entry.is_symlink();
              if (!linked && entry.is_directory()) return;
              const bool known = manifest.files.contains(std::string(relative));
              if (linked || !entry.is_regular_file() || !known)
                list(differences.foreign, differences.foreign_count, relative);
            });
}

}  // namespace

GameDifferences compare_game_files(const SnapshotManifest& manifest, const fs::path& root,
                                   const Progress& progress) {
  const auto node = posix_files::node_at(root);
  require(!node || S_ISDIR(node->st_mode), "unsafe_path",
          [&] { return "The folder of the game is a link or a file: " + path_utf8(root); });
  GameDifferences differences;
  if (node) list_foreign(differences, manifest, root);
  unsigned long long done = 0;
  for (const auto& [relative, declared] : manifest.files) {
    report(progress, done, manifest.expanded_length);
    const Progress within = [&](auto part, auto) {
      report(progress, done + part, manifest.expanded_length);
      return true;
    };
    const Found found = compare(reached(root, relative), declared, progress ? within : Progress());
    done += declared.length;
    if (found == Found::right) continue;
    differences.to_repair.push_back(relative);
    if (found == Found::wrong)
      list(differences.damaged, differences.damaged_count, relative);
    else
      list(differences.missing, differences.missing_count, relative);
  }
  report(progress, done, manifest.expanded_length);
  return differences;
}

}  // namespace tavro
