#include "platform/files/snapshot_retirement.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "documents/manifest.h"
#include "domain/error.h"
#include "platform/files/directory_chain.h"
#include "platform/files/durable_files.h"
#include "platform/files/held_directory.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using posix_files::node_in;

constexpr char preserved_directory[] = "Changed managed directory was preserved";

fs::file_type link_type(const fs::path& path) {
  return fs::symlink_status(path.has_filename() ? path : path.parent_path()).type();
}

[[noreturn]] void fail_to_look(const fs::path& path, int error) {
  throw fs::filesystem_error("cannot look into", path,
                             std::error_code(error, std::generic_category()));
}

/// What stands there; nothing only where that is certain, since what is taken for gone is
/// forgotten.
std::optional<struct stat> seen_in(int directory, const std::string& name, const fs::path& path) {
  const auto node = node_in(directory, name.c_str());
  const int error = errno;
  if (!node && error != ENOENT) fail_to_look(path, error);
  return node;
}

/// "a/b" and "c" of "a/b/c"; "" and "a" of "a".
std::pair<std::string, std::string> parted(const std::string& relative) {
  const auto end = relative.rfind('/');
  if (end == relative.npos) return {"", relative};
  return {relative.substr(0, end), relative.substr(end + 1)};
}

/// The directories of a tree, by their relative paths; the way to the last one stays open, since
/// the next one is mostly near.
class OpenTree {
 public:
  explicit OpenTree(const fs::path& root)
      : held_(posix_files::hold_name(root, posix_files::ParentLink::followed)),
        root_(
            posix_files::enter_directory(held_.parent.get(), held_.name.c_str(), true).directory) {
    require(bool(root_), "unsafe_path",
            "Managed snapshot retirement requires an ordinary directory");
  }

  /// Its descriptor, or -1 when no directory stands there. A link on the way is `unsafe_path`.
  int directory(const std::string& relative) {
    std::vector<std::string> names;
    for (std::size_t at = 0; at < relative.size();) {
      const auto end = std::min(relative.find('/', at), relative.size());
      names.push_back(relative.substr(at, end - at));
      at = end + 1;
    }
    const auto differs =
        std::mismatch(way_.begin(), way_.end(), names.begin(), names.end(),
                      [](const Step& step, const auto& name) { return step.name == name; });
    way_.erase(differs.first, way_.end());
    for (auto name = names.begin() + static_cast<std::ptrdiff_t>(way_.size()); name != names.end();
         ++name) {
      const int parent = way_.empty() ? root_.get() : way_.back().directory.get();
      UniqueFd next = posix_files::enter_directory(parent, name->c_str(), false).directory;
      if (!next) {
        const int unopened = errno;
        const auto node = seen_in(parent, *name, relative);
        require(!node || !S_ISLNK(node->st_mode), "unsafe_path",
                "Managed path contains a symbolic link");
        if (unopened != ENOENT && unopened != ENOTDIR) fail_to_look(relative, unopened);
        return -1;
      }
      way_.push_back({*name, std::move(next)});
    }
    return way_.empty() ? root_.get() : way_.back().directory.get();
  }

  int root() const { return root_.get(); }
  int above() const { return held_.parent.get(); }
  const char* name() const { return held_.name.c_str(); }

 private:
  struct Step {
    std::string name;
    UniqueFd directory;
  };

  posix_files::HeldName held_;
  UniqueFd root_;
  std::vector<Step> way_;
};

/// One retirement: which directories may have become empty, and which have to be synced.
class Retirement {
 public:
  explicit Retirement(const fs::path& root)
      : tree_(root), root_(posix_files::plain_absolute(root)) {}

  void remove_file(const std::string& relative) {
    const auto [parent, name] = parted(relative);
    const int directory = tree_.directory(parent);
    const auto node = directory < 0 ? std::nullopt : seen_in(directory, name, root_ / relative);
    if (node) {
      require(S_ISREG(node->st_mode), "unsafe_path", "Changed managed paths were preserved");
      require(posix_files::remove_in(directory, name.c_str()) == 0, "file_remove",
              "Cannot remove a declared managed file");
      to_sync_.insert(parent.empty() ? root_ : root_ / parent);
    }
    for (auto end = relative.rfind('/'); end != 0 && end != relative.npos;
         end = relative.rfind('/', end - 1))
      if (!to_try_.insert(relative.substr(0, end)).second) break;
  }

  void remove_empty_directories() {
    for (const auto& relative : to_try_) {
      const auto [parent, name] = parted(relative);
      const int above = tree_.directory(parent);
      const auto node = above < 0 ? std::nullopt : seen_in(above, name, root_ / relative);
      if (!node) continue;
      require(S_ISDIR(node->st_mode), "unsafe_path", preserved_directory);
      remove_if_empty(above, name.c_str(), root_ / relative,
                      "Cannot retire empty managed directory");
    }
  }

  /// True if the root remains.
  bool remove_root() {
    const auto held = posix_files::node_of(tree_.root());
    const auto named = node_in(tree_.above(), tree_.name());
    require(held && named && posix_files::same_node(*held, *named), "unsafe_path",
            preserved_directory);
    return !remove_if_empty(tree_.above(), tree_.name(), root_,
                            "Cannot retire empty snapshot directory");
  }

  void synchronize() {
    for (const auto& path : to_sync_) {
      const std::string relative =
          path == root_ ? "" : path.lexically_relative(root_).generic_string();
      // Above the root nothing is changed but its own name.
      if (path == root_.parent_path()) {
        sync_directory(path);
        continue;
      }
      const int directory = tree_.directory(relative);
      require(directory >= 0, "file_sync", "Cannot open directory for synchronization");
      require(posix_files::sync(directory) == 0, "file_sync",
              "Could not durably synchronize directory");
    }
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

  bool remove_if_empty(int above, const char* name, const fs::path& path,
                       std::string_view message) {
    const auto directory = posix_files::enter_directory(above, name, true).directory;
    const int unopened = errno;
    const bool changed =
        !directory && (unopened == ENOTDIR || unopened == ELOOP || unopened == ENOENT);
    require(!changed, "unsafe_path", preserved_directory);
    if (!directory) fail_to_look(path, unopened);
    const auto empty = posix_files::is_empty(directory.get());
    // What cannot be looked into is not taken for a folder that holds something.
    if (!empty) fail_to_look(path, errno);
    if (!*empty) return false;
    require(posix_files::remove_empty_in(above, name) == 0, "file_remove", message);
    to_sync_.erase(path);
    to_sync_.insert(path.parent_path());
    return true;
  }

  OpenTree tree_;
  fs::path root_;
  std::set<std::string, DeeperFirst> to_try_;
  std::set<fs::path> to_sync_;
};

}  // namespace

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
  Retirement retirement(root);
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
