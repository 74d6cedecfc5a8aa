#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/progress.h"
#include "publisher/source_tree.h"

namespace tavro {

struct ArchiveOptions {
  /// Level of the Zstandard encoder, 1 to 19. No level up to 19 needs a window above 8 MiB.
  int level = 19;
  /// Threads that compress; 0 means one per processor. Their number never changes the bytes.
  unsigned threads = 0;
};

struct ArchiveFigures {
  unsigned long long length = 0;
  std::string sha256;
  /// One digest per file of the tree, in its order.
  std::vector<std::string> file_sha256;
};

/// Writes the tree as a new file of format "tar.zst-v1": one frame around a tar stream of ordinary
/// files in byte order of their paths, modes 0644 and 0755, no times, no owners. The same tree
/// gives the same bytes. Each file is read once; one that changes meanwhile is `source_changed`.
/// The file is durable on return, its name when the caller syncs the folder; a failure leaves no
/// file.
ArchiveFigures write_archive(const SourceTree& tree, const std::filesystem::path& archive,
                             const ArchiveOptions& options, const Progress& progress);

}  // namespace tavro
