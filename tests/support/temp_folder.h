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

/// Shows the folder a second time at `target`. False where the process may not, and where nobody
/// could tell that both are one: in a root entered by `chroot`, whose mount is not listed.
bool bind_mount(const std::filesystem::path& source, const std::filesystem::path& target);

}  // namespace tavro
