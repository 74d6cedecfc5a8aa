#include "platform/files/managed_tree.h"

#include <algorithm>
#include <set>
#include <utility>

#include "documents/manifest.h"
#include "domain/error.h"
#include "platform/files/durable_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long max_cleanup_entries = 250000;

/// A separator at the end would follow a link, and make the path its own parent.
fs::path without_end_separator(const fs::path& path) {
  return path.has_filename() ? path : path.parent_path();
}

fs::file_type link_type(const fs::path& path) {
  return fs::symlink_status(without_end_separator(path)).type();
}

fs::path plain_root(const fs::path& root) { return without_end_separator(fs::absolute(root)); }

/// One retirement: which directories may have become empty, and which have to be synced.
class Retirement {
 public:
  explicit Retirement(fs::path root) : root_(std::move(root)) {}

  void remove_file(const std::string& relative) {
    const fs::path path = safe_join(root_, relative, true);
    const auto type = link_type(path);
    require(type == fs::file_type::not_found || type == fs::file_type::regular, "unsafe_path",
            "Changed managed paths were preserved");
    if (type == fs::file_type::regular) {
      require(retried([&] { return system_calls().unlink(path.c_str()); }) == 0, "file_remove",
              "Cannot remove a declared managed file");
      to_sync_.insert(path.parent_path());
    }
    for (auto end = relative.rfind('/'); end != 0 && end != relative.npos;
         end = relative.rfind('/', end - 1))
      if (!to_try_.insert(relative.substr(0, end)).second) break;
  }

  void remove_empty_directories() {
    for (const auto& relative : to_try_) {
      const fs::path directory = root_ / relative;
      const auto type = link_type(directory);
      if (type == fs::file_type::not_found) continue;
      require(type == fs::file_type::directory, "unsafe_path",
              "Changed managed directory was preserved");
      if (fs::is_empty(directory))
        remove_directory(directory, "Cannot retire empty managed directory");
    }
  }

  /// True if the root remains.
  bool remove_root() {
    if (!fs::is_empty(root_)) return true;
    remove_directory(root_, "Cannot retire empty snapshot directory");
    return false;
  }

  void synchronize() const {
    for (const auto& directory : to_sync_) sync_directory(directory);
  }

 private:
  // Deepest first, so that a directory is tried after all that stood below it.
  struct DeeperFirst {
    bool operator()(const std::string& left, const std::string& right) const {
      const auto left_depth = std::count(left.begin(), left.end(), '/');
      const auto right_depth = std::count(right.begin(), right.end(), '/');
      return left_depth != right_depth ? left_depth > right_depth : left < right;
    }
  };

  void remove_directory(const fs::path& directory, std::string_view message) {
    require(retried([&] { return system_calls().rmdir(directory.c_str()); }) == 0, "file_remove",
            message);
    to_sync_.erase(directory);
    to_sync_.insert(directory.parent_path());
  }

  fs::path root_;
  std::set<std::string, DeeperFirst> to_try_;
  std::set<fs::path> to_sync_;
};

}  // namespace

void walk_tree(const fs::path& root, unsigned long max_entries, std::string_view too_many,
               const TreeVisitor& visit) {
  const std::string& prefix = root.native();
  const std::size_t skipped = prefix.size() + (prefix.ends_with('/') ? 0 : 1);
  unsigned long count = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    require(++count <= max_entries, "size_limit", too_many);
    visit(entry, std::string_view(entry.path().native()).substr(skipped));
  }
}

unsigned long long tree_bytes(const fs::path& root, unsigned long max_entries) {
  if (!fs::exists(root)) return 0;
  require(fs::is_directory(root) && !fs::is_symlink(root), "unsafe_path",
          "Expected a plain directory");
  unsigned long long total = 0;
  walk_tree(root, max_entries, "Directory entry count exceeds bounds",
            [&](const auto& entry, auto relative) {
              safe_join(root, relative, true);
              require(!entry.is_symlink() && (entry.is_directory() || entry.is_regular_file()),
                      "unsafe_path", "Tree contains a link or special file");
              if (entry.is_directory()) return;
              const auto length = static_cast<unsigned long long>(entry.file_size());
              require(!__builtin_add_overflow(total, length, &total), "size_limit",
                      "Tree size overflowed");
            });
  return total;
}

void remove_plain_tree(const fs::path& root) {
  const auto type = link_type(root);
  if (type == fs::file_type::not_found) return;
  require(type == fs::file_type::directory, "unsafe_path",
          "Tree cleanup requires an ordinary directory");
  tree_bytes(root, max_cleanup_entries);
  fs::remove_all(root);
  sync_directory(plain_root(root).parent_path());
}

bool remove_path_quietly(const fs::path& path) noexcept {
  std::error_code error;
  try {
    fs::remove_all(path, error);
  } catch (const std::exception&) {
    return false;
  }
  return !error;
}

void validate_snapshot_retirement(const SnapshotManifest& manifest, const fs::path& root) {
  const auto root_type = link_type(root);
  if (root_type == fs::file_type::not_found) return;
  require(root_type == fs::file_type::directory, "unsafe_path",
          "Managed snapshot retirement requires an ordinary directory");
  for (const auto& [relative, file] : manifest.files) {
    const auto type = link_type(safe_join(root, relative, true));
    require(type == fs::file_type::not_found || type == fs::file_type::regular, "unsafe_path",
            "A managed snapshot path became a link or special file; it was preserved");
  }
}

bool retire_snapshot_files(const SnapshotManifest& manifest, const fs::path& root,
                           const std::function<void()>& tick) {
  validate_snapshot_retirement(manifest, root);
  if (link_type(root) == fs::file_type::not_found) return false;
  Retirement retirement(plain_root(root));
  for (const auto& [relative, file] : manifest.files) {
    if (tick) tick();
    retirement.remove_file(relative);
  }
  retirement.remove_empty_directories();
  const bool remains = retirement.remove_root();
  // Last, and once each: a crash before leaves what a further call completes.
  retirement.synchronize();
  return remains;
}

}  // namespace tavro
