#include "games/game_verify.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
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

/// What is missing was the system's as well.
bool is_own(const fs::path& root, const std::string& relative) {
  for (auto end = relative.find('/');; end = relative.find('/', end + 1)) {
    const auto node = posix_files::node_at(root / relative.substr(0, end));
    if (!node) return true;
    if (end == relative.npos) return S_ISREG(node->st_mode);
    if (!S_ISDIR(node->st_mode)) return false;
  }
}

enum class Found { right, wrong, nothing };

/// Whether the bytes are the declared ones. A sector that cannot be read is a damage like another.
bool has_digest(int file, const PackageFile& declared, const Progress& progress) {
  DigestState state("sha256");
  std::vector<char> block(kStreamBlock);
  for (std::uint64_t done = 0;;) {
    const ssize_t count = read_some(file, block.data(), block.size());
    if (count < 0) return false;
    if (count == 0) return done == declared.length && state.value() == declared.sha256;
    done += static_cast<std::uint64_t>(count);
    // It may be growing.
    if (done > declared.length) return false;
    state.update({block.data(), static_cast<std::size_t>(count)});
    report(progress, done, declared.length);
  }
}

Found compare(const fs::path& path, const PackageFile& declared, const Progress& progress) {
  if (path.empty()) return Found::nothing;
  const UniqueFd file = posix_files::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (!file) {
    const int error = errno;
    const auto named = posix_files::node_at(path);
    if (!named || !S_ISREG(named->st_mode)) return Found::nothing;
    require(error == EACCES || error == EIO, "file_read", [&] {
      return "Cannot open a file of the game" + posix_files::failed_because(path, error);
    });
    return Found::wrong;
  }
  const auto node = posix_files::node_of(file.get());
  if (!node || !S_ISREG(node->st_mode)) return Found::nothing;
  if (static_cast<std::uint64_t>(node->st_size) != declared.length) return Found::wrong;
  if (declared.executable && (node->st_mode & S_IXUSR) == 0) return Found::wrong;
  return has_digest(file.get(), declared, progress) ? Found::right : Found::wrong;
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

SnapshotManifest own_files(const SnapshotManifest& manifest, const fs::path& root) {
  SnapshotManifest own;
  for (const auto& [relative, declared] : manifest.files)
    if (is_own(root, relative)) own.files.emplace(relative, declared);
  return own;
}

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
