#pragma once

#include <filesystem>
#include <string>

#include "domain/unique_fd.h"

namespace tavro {

/// Where a game's output and errors go: a file, which takes them also when nobody reads on, and
/// which is cut now and then so that a game that talks without end does not fill the disk.
class GameOutput {
 public:
  /// Creates the file. Throws `file_write`.
  explicit GameOutput(std::filesystem::path path);

  /// For the child; above those of the standard streams, and close-on-exec.
  int descriptor() const noexcept { return file_.get(); }

  /// Sets all but the end aside once the file holds more than a mebibyte. What is written at that
  /// very moment may be lost.
  void trim();
  /// The end of all output, at most `kGameOutputBytes`.
  std::string end() const;
  /// From now on the file holds this end alone; where it cannot be stored, all that it held.
  void shorten_to(const std::string& end);

 private:
  std::string end_of_file() const;

  std::filesystem::path path_;
  UniqueFd file_;
  /// The end of what was cut off so far.
  std::string before_;
};

}  // namespace tavro
