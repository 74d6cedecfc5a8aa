#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "documents/game_manifest.h"
#include "domain/progress.h"

namespace tavro {

/// How a tree differs from its manifest. The lists hold the first `kListedDifferences` relative
/// paths of each kind; the counts are exact.
inline constexpr std::size_t kListedDifferences = 1000;
struct GameDifferences {
  std::vector<std::string> damaged;
  std::vector<std::string> missing;
  /// What the manifest does not know, or what is no file where it wants one. It belongs to
  /// somebody.
  std::vector<std::string> foreign;
  unsigned long long damaged_count = 0;
  unsigned long long missing_count = 0;
  unsigned long long foreign_count = 0;

  /// Every file of the manifest is there and right; others do no harm.
  bool is_sound() const { return damaged_count == 0 && missing_count == 0; }
  /// All files to be brought anew, of which there may be more than are listed.
  std::vector<std::string> to_repair;
};

/// The files of the manifest that a retirement below `root` may take: all but those where a link,
/// or something that is no file of its kind, stands at the path or on the way to it.
SnapshotManifest own_files(const SnapshotManifest& manifest, const std::filesystem::path& root);

/// Compares every file, by its length, digest and owner's execute permission. Folders that only
/// hold other folders are not looked at. Of a tree that is gone every file is missing. A file that
/// may not be read, or that its disk does not give back, is damaged. Throws `unsafe_path` when
/// `root` is a link or a file, `size_limit` beyond 250000 entries, `cancelled`, and `file_read`
/// where the system cannot open one now.
GameDifferences compare_game_files(const SnapshotManifest& manifest,
                                   const std::filesystem::path& root, const Progress& progress);

}  // namespace tavro
