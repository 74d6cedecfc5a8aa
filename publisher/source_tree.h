#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "domain/json.h"
#include "domain/unique_fd.h"

namespace tavro {

struct SourceFile {
  std::string path;  ///< relative, `/` as separator
  unsigned long long length = 0;
  bool executable = false;
};

/// What a release is made from: the ordinary files below a folder, in ascending byte order of their
/// paths, as they were when the object was made.
class SourceTree {
 public:
  /// Throws `unsafe_source`, with the path, for anything that an archive cannot carry: a link, a
  /// special file, a folder without files, a name that is not portable printable ASCII, or the
  /// guard file of an unfinished tree; `size_limit` for more than 100000 files.
  explicit SourceTree(const std::filesystem::path& folder);

  const std::filesystem::path& folder() const { return folder_; }
  const std::vector<SourceFile>& files() const { return files_; }
  unsigned long long expanded_length() const { return expanded_length_; }

  /// Opens a file for reading without following a link anywhere below the folder. Throws
  /// `source_changed` unless it still is what it was when the tree was read.
  UniqueFd open(const SourceFile& file) const;

 private:
  std::filesystem::path folder_;
  std::vector<SourceFile> files_;
  unsigned long long expanded_length_ = 0;
};

}  // namespace tavro
