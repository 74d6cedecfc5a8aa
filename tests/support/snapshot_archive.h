#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "documents/manifest.h"
#include "support/testing.h"

struct archive_entry;

namespace tavro {

/// One entry of a tar stream, by default an ordinary file as snapshots hold them.
struct TarEntry {
  std::string path;
  std::string content;
  mode_t mode = 0644;
  /// Makes the entry something else before it is written.
  std::function<void(archive_entry*)> damage = {};
};

/// A tar stream in pax form.
std::string tar_of(const std::vector<TarEntry>& entries);

/// One Zstandard frame. A `window_log` other than 0 is the window that the frame asks for.
std::string zstd_of(std::string_view bytes, int window_log = 0);

/// The manifest of a build that holds these files, and of the archive that carries it.
SnapshotManifest manifest_of(const std::vector<TarEntry>& files, std::string_view archive);

/// Writes the files as a tree below `root`, with the modes that an extraction gives them.
void write_tree(const std::vector<TarEntry>& files, const std::filesystem::path& root);

void write_bytes(const std::filesystem::path& path, std::string_view bytes);

/// The files below `root` with their content, and nothing else.
std::map<std::string, std::string> tree_content(const std::filesystem::path& root);

}  // namespace tavro
