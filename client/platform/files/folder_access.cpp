#include "platform/files/folder_access.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/private_storage.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

bool is_closed(int error) { return error == EACCES || error == EPERM; }

/// The highest folder on the way to `path` that cannot be entered: all below it are hidden by it.
fs::path closed_folder(const fs::path& path) {
  fs::path folder = path.parent_path();
  while (folder.has_relative_path() && !posix_files::node_at(folder) && is_closed(errno))
    folder = folder.parent_path();
  return folder;
}

}  // namespace

void refuse_folder(const fs::path& folder, int error) {
  std::string message = "Cannot look into the folder " + path_utf8(folder) + ": " +
                        std::generic_category().message(error) + " (" + std::to_string(error) + ")";
  if (!is_closed(error)) fail("file_read", message);
  fail("permissions", message + "; give it to this user alone, with mode 0700, and try again");
}

fs::file_type type_at(const fs::path& path) {
  std::error_code error;
  const auto type = fs::symlink_status(path, error).type();
  if (type != fs::file_type::none) return type;
  refuse_folder(is_closed(error.value()) ? closed_folder(path) : path.parent_path(), error.value());
}

std::vector<fs::path> folder_entries(const fs::path& folder, std::size_t max_entries,
                                     std::string_view too_many, std::string_view code) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    require(entries.size() < max_entries, code, too_many);
    entries.push_back(entry->path());
  }
  if (error) refuse_folder(folder, error.value());
  return entries;
}

bool says_nothing(const Error& error, const fs::path& file) {
  if (error.code == "crypto_failure") return true;
  if (error.code != "file_read") return false;
  return ::access(file.c_str(), R_OK) == 0 || errno != EACCES;
}

}  // namespace tavro
