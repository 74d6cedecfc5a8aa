#include "publisher/source_tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>

#include "documents/manifest.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/relative_path.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "publisher/assembly.h"

namespace tavro {
namespace {

constexpr unsigned long max_entries = 250000;

[[noreturn]] void refuse(std::string_view path, std::string_view reason) {
  fail("unsafe_source", "Cannot pack " + std::string(path) + ": " + std::string(reason));
}

/// The rules of one path of an inventory, told with the path.
void check_path(const std::string& path) {
  try {
    validate_relative_path(path, true);
  } catch (const Error& error) {
    refuse(path, error.what());
  }
  const auto printable = [](char c) { return c >= 0x20 && c <= 0x7e; };
  if (!std::ranges::all_of(path, printable)) refuse(path, "file paths must be ASCII");
}

std::string parent_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(path.substr(0, slash == std::string_view::npos ? 0 : slash));
}

bool is_executable(mode_t mode) { return (mode & S_IXUSR) != 0; }

}  // namespace

SourceTree::SourceTree(const std::filesystem::path& folder)
    : folder_(std::filesystem::absolute(folder).lexically_normal()) {
  require(std::filesystem::is_directory(folder_), "unsafe_source",
          [&] { return "There is no folder to pack: " + path_utf8(folder_); });
  // A link to the folder is the publisher's own choice; only below it links are refused.
  folder_ = std::filesystem::canonical(folder_);
  std::set<std::string> empty;
  const auto visit = [&](const std::filesystem::directory_entry& entry, std::string_view relative) {
    const std::string path(relative);
    empty.erase(parent_of(path));
    if (is_package_guard(path_utf8(entry.path().filename())))
      refuse(path, "the folder is still being assembled");
    struct stat status {};
    if (::lstat(entry.path().c_str(), &status) != 0) refuse(path, "it cannot be read");
    if (S_ISDIR(status.st_mode)) {
      empty.insert(path);
    } else if (S_ISREG(status.st_mode)) {
      check_path(path);
      files_.push_back(
          {path, static_cast<unsigned long long>(status.st_size), is_executable(status.st_mode)});
    } else {
      refuse(path, "only ordinary files and folders can be packed");
    }
  };
  walk_tree(folder_, max_entries, "The folder holds more than 250000 entries", visit);
  // An archive lists no folders, so an empty one would be lost without a word.
  if (!empty.empty()) refuse(*empty.begin(), "the folder holds no files and would be lost");
  require(!files_.empty(), "unsafe_source",
          [&] { return "There is no file to pack in " + path_utf8(folder_); });
  require(files_.size() <= kMaxSnapshotFiles, "size_limit",
          "The folder holds more than 100000 files");
  std::ranges::sort(files_, {}, &SourceFile::path);
  for (const SourceFile& file : files_) {
    require(file.length <= kMaxSnapshotBytes - expanded_length_, "size_limit",
            "The folder holds more than 4 TiB");
    expanded_length_ += file.length;
  }
}

UniqueFd SourceTree::open(const SourceFile& file) const {
  const std::filesystem::path path = safe_join(folder_, file.path, true);
  UniqueFd descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  const bool same = descriptor && ::fstat(descriptor.get(), &status) == 0 &&
                    S_ISREG(status.st_mode) &&
                    static_cast<unsigned long long>(status.st_size) == file.length &&
                    is_executable(status.st_mode) == file.executable;
  require(same, "source_changed", [&] { return "File changed while it was packed: " + file.path; });
  return descriptor;
}

}  // namespace tavro
