#include "self_update/waiting_update.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "self_update/bootstrap_moves.h"
#include "self_update/bootstrap_release.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

bool own_file(const struct stat& node) {
  return S_ISREG(node.st_mode) && node.st_uid == ::geteuid();
}

std::string remedy() {
  return branded("; remove it, and the next update of Tavro brings it again");
}

/// What is wrong with a lock file, empty when it looks as the system made it or does not exist.
std::string foreign_lock(const fs::path& path) {
  const auto node = posix_files::node_at(path);
  const bool ours = !node || (own_file(*node) && node->st_nlink == 1 && node->st_size == 0 &&
                              (node->st_mode & posix_files::mode_bits) == (S_IRUSR | S_IWUSR));
  if (ours) return {};
  return path_utf8(path) + branded(" is not the empty private file that Tavro locks; remove it");
}

bool has_length(const fs::path& path, std::uint64_t length) {
  const auto node = posix_files::node_at(path);
  return node && S_ISREG(node->st_mode) && static_cast<std::uint64_t>(node->st_size) == length;
}

/// The first file of the update that stands neither where it was staged nor in place.
std::string missing_file(const BootstrapPaths& paths, const SnapshotManifest& release) {
  const auto missing =
      std::find_if(release.files.begin(), release.files.end(), [&](const auto& file) {
        const bool staged = stands(paths.update / file.first);
        return !has_length((staged ? paths.update : paths.installed) / file.first,
                           file.second.length);
      });
  return missing == release.files.end() ? std::string() : missing->first;
}

std::string obstacle(const BootstrapPaths& paths) {
  require_writable_volume(paths);
  for (const auto& lock : {paths.lock, DataPaths(paths.root).bootstrap_lock})
    if (auto text = foreign_lock(lock); !text.empty()) return text + ".";
  const auto text = read_waiting_update(paths);
  try {
    const auto missing = missing_file(paths, parse_bootstrap_update(text));
    if (missing.empty()) return {};
    return path_utf8(paths.update / missing) + " was changed; the next start gives the update up.";
  } catch (const std::exception&) {
    return path_utf8(paths.pending) + " is damaged; the next start removes it.";
  }
}

}  // namespace

std::string read_waiting_update(const BootstrapPaths& paths) {
  const auto node = posix_files::node_at(paths.pending);
  require(node && own_file(*node), "unsafe_path", [&] {
    return path_utf8(paths.pending) + " is not the file of this user that Tavro wrote" + remedy();
  });
  try {
    return read_file(paths.pending, bootstrap_descriptor_bytes);
  } catch (const Error& error) {
    fail(error.code, path_utf8(paths.pending) + ": " + error.what() + remedy());
  }
}

void require_writable_volume(const BootstrapPaths& paths) {
  const auto native = path_utf8(paths.lock.parent_path());
  require(::access(native.c_str(), W_OK) == 0 || errno != EROFS, "file_write",
          [&] { return native + " is on a volume that is read-only"; });
}

NativeFileLock installation_lock(const fs::path& path, NativeLockSharing sharing, LockMode mode) {
  try {
    return NativeFileLock(path, true, sharing, mode);
  } catch (const Error& error) {
    if (error.code == "busy") throw;
    const auto foreign = foreign_lock(path);
    fail(error.code, foreign.empty() ? path_utf8(path) + ": " + error.what() +
                                           "; its volume may be full or read-only"
                                     : foreign);
  }
}

std::string waiting_update_obstacle(const BootstrapPaths& paths) noexcept {
  try {
    return stands(paths.pending) ? obstacle(paths) : std::string();
  } catch (const std::exception& problem) {
    return std::string(problem.what()) + ".";
  }
}

void remove_update_leftovers(const BootstrapPaths& paths) {
  if (remove_path_quietly(paths.update)) remove_old_files(paths);
}

void mark_update_leftovers(const BootstrapPaths& paths) noexcept {
  try {
    if (!stands(paths.old_files)) atomic_write(paths.old_files, {});
  } catch (const std::exception&) {
    return;
  }
}

}  // namespace tavro
