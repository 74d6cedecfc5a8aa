#include "platform/archives/snapshot.h"

#include <sys/stat.h>

#include <string_view>

#include "documents/manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/relative_path.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

constexpr unsigned long max_entries = 250000;
constexpr char too_many_entries[] = "Game directory entry count exceeds bounds";

void require_content_directory(const std::filesystem::path& root) {
  std::error_code ignored;
  require(
      std::filesystem::is_directory(root, ignored) && !std::filesystem::is_symlink(root, ignored),
      "unsafe_path", "Game content directory is missing or linked");
}

/// The walk meets every ancestor as an entry of its own, so no name needs a look at its parents.
void require_safe_entry(const std::filesystem::directory_entry& entry, std::string_view relative) {
  require(!entry.is_symlink(), "unsafe_path", "Game tree contains a symbolic link");
  validate_relative_path(relative, true);
}

bool is_listed(const SnapshotManifest& manifest, const std::filesystem::directory_entry& entry,
               std::string_view relative) {
  return entry.is_regular_file() && manifest.files.contains(std::string(relative));
}

/// What the disk says of one declared file, from a single look.
struct FoundFile {
  bool has_length = false;
  bool executable_by_owner = false;

  FoundFile(const std::filesystem::path& path, const PackageFile& declared) {
    const auto node = posix_files::node_at(path);
    if (!node || !S_ISREG(node->st_mode)) return;
    has_length = static_cast<unsigned long long>(node->st_size) == declared.length;
    executable_by_owner = (node->st_mode & S_IXUSR) != 0;
  }

  bool lacks_permission(const PackageFile& declared) const {
    return declared.executable && !executable_by_owner;
  }
};

/// Reports a file's digest as a part of the whole tree.
Progress within_tree(const SnapshotManifest& manifest, const Progress& progress,
                     unsigned long long before) {
  if (!progress) return {};
  return [&progress, before, total = manifest.expanded_length](auto done, auto) {
    report(progress, before + done, total);
    return true;
  };
}

bool has_declared_digest(const std::filesystem::path& path, const PackageFile& declared,
                         const Progress& progress) {
  return digest_file_progress(path, "sha256", progress) == declared.sha256;
}

void verify_file(const std::filesystem::path& path, const std::string& relative,
                 const PackageFile& declared, const Progress& in_tree) {
  Progress bounded;
  if (in_tree)
    bounded = [&](auto done, auto total) {
      // The file is being read by its path: it may have grown since its length was compared.
      require(total == declared.length && done <= declared.length, "content_mismatch",
              "File changed beyond its declared verification bound");
      return in_tree(done, total);
    };
  const FoundFile found(path, declared);
  require(found.has_length && has_declared_digest(path, declared, bounded), "content_mismatch",
          [&] { return "Game content differs from the verified manifest: " + relative; });
  require(!found.lacks_permission(declared), "content_mode",
          "Game executable permission is missing");
}

bool is_damaged(const std::filesystem::path& path, const PackageFile& declared,
                const Progress& progress) {
  const FoundFile found(path, declared);
  if (!found.has_length || found.lacks_permission(declared)) return true;
  try {
    return !has_declared_digest(path, declared, progress);
  } catch (const Error& error) {
    if (error.code == "cancelled") throw;
    return true;
  }
}

}  // namespace

void report(const Progress& progress, unsigned long long done, unsigned long long total) {
  if (!progress) return;
  require(progress(done, total), "cancelled", "Operation cancelled at a safe boundary");
}

void verify_snapshot_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                          const Progress& progress) {
  require_content_directory(root);
  std::size_t found = 0;
  walk_tree(root, max_entries, too_many_entries, [&](const auto& entry, auto relative) {
    require_safe_entry(entry, relative);
    if (entry.is_directory()) return;
    require(is_listed(manifest, entry, relative), "unexpected_file",
            "Game tree contains an unmanaged file");
    require(++found <= manifest.files.size(), "size_limit", "Game tree contains too many files");
  });
  require(found == manifest.files.size(), "missing_file",
          "Game content is incomplete; repair is available");

  unsigned long long done = 0;
  for (const auto& [relative, file] : manifest.files) {
    report(progress, done, manifest.expanded_length);
    verify_file(safe_join(root, relative, true), relative, file,
                within_tree(manifest, progress, done));
    done += file.length;
  }
  report(progress, done, manifest.expanded_length);
}

DamagedFiles damaged_snapshot_files(const SnapshotManifest& manifest,
                                    const std::filesystem::path& root, const Progress& progress,
                                    unsigned long limit) {
  require_content_directory(root);
  DamagedFiles damaged;
  const auto record = [&](std::string_view relative) {
    if (damaged.count++ < limit) damaged.paths.emplace_back(relative);
  };
  walk_tree(root, max_entries, too_many_entries, [&](const auto& entry, auto relative) {
    require_safe_entry(entry, relative);
    if (!entry.is_directory() && !is_listed(manifest, entry, relative)) record(relative);
  });

  unsigned long long done = 0;
  for (const auto& [relative, file] : manifest.files) {
    report(progress, done, manifest.expanded_length);
    if (is_damaged(safe_join(root, relative, true), file, within_tree(manifest, progress, done)))
      record(relative);
    done += file.length;
  }
  report(progress, done, manifest.expanded_length);
  return damaged;
}

}  // namespace tavro
