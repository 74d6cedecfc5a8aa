#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "domain/progress.h"

namespace tavro {

struct ReservedTree;
struct SnapshotManifest;

// Every progress below counts bytes of `expanded_length`, and is asked at each file and after each
// block of 65536 bytes. Verification begins again at 0.

struct DamagedFiles {
  /// How many differences exist, listed or not.
  unsigned long long count = 0;
  /// The relative paths of the first ones, at most the caller's limit.
  std::vector<std::string> paths;
};

/// Calls `progress` when it is set; a false answer is `cancelled`.
void report(const Progress& progress, unsigned long long done, unsigned long long total);

/// Proves from the disk that the tree at `root` equals the manifest: every file with its length,
/// digest and, when executable, the owner's execute permission, and no other file, link or special
/// file. Empty directories are accepted. Names are all checked before any digest is computed.
///
/// Throws at the first difference: `unsafe_path` (root, a link, an unportable name), `size_limit`
/// (more than 250000 entries, or too many files), `unexpected_file`, `missing_file`,
/// `content_mismatch`, `content_mode`; `cancelled`; `file_read`.
void verify_snapshot_tree(const SnapshotManifest& manifest, const std::filesystem::path& root,
                          const Progress& progress = {});

/// Makes the same comparison without stopping at a difference; an empty result means an intact
/// tree. A tree that cannot be walked safely still throws `unsafe_path` or `size_limit`.
DamagedFiles damaged_snapshot_files(const SnapshotManifest& manifest,
                                    const std::filesystem::path& root, const Progress& progress,
                                    unsigned long limit);

/// Turns an archive of format "tar.zst-v1" into a private tree at `staging`, which must not exist,
/// or with `reserved` must be that tree, made for this snapshot, each of its files still untouched.
/// The archive is proved by length and digest before it is decoded, every file against the manifest
/// as soon as it is written, and the finished tree again from the disk. On return the tree is on
/// stable media, and so is its name; that of a reserved tree was made durable for its record.
///
/// Memory: four blocks of 65536 bytes and the decoder's window of at most 64 MiB, whatever the
/// size of the package.
///
/// Throws `content_mismatch`, `staging_exists`, `archive`, `archive_path`, `archive_type`,
/// `archive_inventory`, `size_limit`, `unsafe_path`, `insufficient_space`, `allocation_changed`
/// (the reserved tree or a file of it is not what was reserved), `cancelled` and what writing
/// raises. A failure leaves `staging` as it stands, for the caller to remove.
void extract_snapshot(const SnapshotManifest& manifest, const std::filesystem::path& archive,
                      const std::filesystem::path& staging, const Progress& progress = {},
                      const ReservedTree* reserved = nullptr);

/// The same for an archive that comes from elsewhere than a plain file, and for a part of its
/// files: only those of `part`, which has them from `manifest`, are written and proved, into a tree
/// that was reserved for `part`. Length and digest of the archive are proved as its bytes pass, and
/// nothing of the tree counts before this returns. Progress counts all files of the archive, then
/// those of the part. What `source` throws surfaces as a failure of the archive.
void extract_snapshot_part(const SnapshotManifest& manifest, const SnapshotManifest& part,
                           std::function<std::size_t(char* buffer, std::size_t size)> source,
                           const std::filesystem::path& staging, const Progress& progress,
                           const ReservedTree& reserved);

}  // namespace tavro
