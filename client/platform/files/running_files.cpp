#include "platform/files/running_files.h"

#include <cerrno>
#include <exception>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/host/system_calls.h"

namespace tavro::native_files {

namespace fs = std::filesystem;

void rename_replace(const fs::path& from, const fs::path& to) {
  const bool moved = retried([&] { return system_calls().rename(from.c_str(), to.c_str()); }) == 0;
  require(moved, "file_write", [&] { return "Cannot move " + path_utf8(from) + " into place"; });
}

bool remove_or_trash(const fs::path& path, const fs::path&) {
  const auto& calls = system_calls();
  bool gone = retried([&] { return calls.unlink(path.c_str()); }) == 0 || errno == ENOENT;
  // A directory answers EISDIR here and EPERM on other systems; nothing else is tried twice.
  if (!gone && (errno == EISDIR || errno == EPERM))
    gone = retried([&] { return calls.rmdir(path.c_str()); }) == 0 || errno == ENOENT;
  require(gone, "file_remove", [&] { return "Cannot remove " + path_utf8(path); });
  return true;
}

void remove_after_exit(const fs::path& path) noexcept {
  try {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  } catch (const std::exception&) {
    // Memory ran out: what stays is in the temporary folder, where it harms nobody.
  }
}

fs::path temporary_directory(const fs::path&) { return fs::temp_directory_path(); }

}  // namespace tavro::native_files
