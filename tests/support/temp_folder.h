#pragma once

#include <filesystem>

namespace tavro {

/// A new private folder below the system's temporary folder, removed with all it holds when the
/// object dies, whatever modes a test left in it.
class TempFolder {
 public:
  TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder();

  /// Absolute, without links.
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace tavro
