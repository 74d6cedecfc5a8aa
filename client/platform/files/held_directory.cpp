#include "platform/files/held_directory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/identifier.h"
#include "platform/files/directory_chain.h"
#include "platform/files/private_storage.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro::posix_files {
namespace {

namespace fs = std::filesystem;

/// The start of the name under which this file is set aside.
std::string set_aside_start(ino_t inode) { return ".tavro-removed." + std::to_string(inode); }

/// An own descriptor of the directory, whose place in the listing belongs to nobody else.
UniqueFd reopened(int directory) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  return UniqueFd(retried([&] { return system_calls().openat(directory, ".", flags, mode_t{}); }));
}

bool is_own_name(std::string_view name) { return name != "." && name != ".."; }

int unlink_in(int directory, const char* name, int flags) noexcept {
  const bool gone = retried([&] { return system_calls().unlinkat(directory, name, flags); }) == 0 ||
                    errno == ENOENT;
  return gone ? 0 : errno;
}

/// Removes what a directory holds. One of this user's own that has lost its rights gets them back.
int empty_directory(int directory, const char* name) {
  const auto& calls = system_calls();
  for (bool given = false;; given = true) {
    const UniqueFd below(
        retried([&] { return calls.openat(directory, name, walk_flags, mode_t{}); }));
    const int error = below ? remove_all_in(below.get()) : errno;
    if (error != EACCES || given) return error;
    if (retried([&] { return calls.fchmodat(directory, name, S_IRWXU, AT_SYMLINK_NOFOLLOW); }) != 0)
      return error;
  }
}

int remove_entry(int directory, const char* name, unsigned char type) {
  if (type != DT_DIR) {
    const int error = remove_in(directory, name);
    // A directory answers EISDIR here and EPERM on other systems.
    if (error != EISDIR && error != EPERM) return error;
  }
  const int error = empty_directory(directory, name);
  if (error == ENOENT) return 0;
  return error != 0 ? error : remove_empty_in(directory, name);
}

bool is_file(int directory, const char* name, dev_t device, ino_t inode) {
  const auto node = node_in(directory, name);
  return node && S_ISREG(node->st_mode) && node->st_dev == device && node->st_ino == inode;
}

}  // namespace

HeldName hold_name(const fs::path& path, ParentLink link) {
  const fs::path target = plain_absolute(path);
  const int flags =
      O_RDONLY | O_DIRECTORY | O_CLOEXEC | (link == ParentLink::refused ? O_NOFOLLOW : 0);
  const fs::path parent = target.parent_path();
  UniqueFd held = posix_files::open(parent, flags);
  if (!held && errno == EACCES && host::search_only() != 0)
    held = posix_files::open(parent, flags | host::search_only());
  return {std::move(held), target.filename().native()};
}

int for_each_entry(int directory, const EntryVisitor& visit) {
  UniqueFd own = reopened(directory);
  if (!own) return errno;
  const std::unique_ptr<DIR, Deleter<::closedir>> listing(::fdopendir(own.get()));
  if (!listing) return errno;
  own.release();
  errno = 0;
  while (const dirent* const entry = ::readdir(listing.get())) {
    if (is_own_name(entry->d_name)) visit(entry->d_name, entry->d_type);
    errno = 0;
  }
  return errno;
}

std::optional<bool> is_empty(int directory) {
  bool empty = true;
  const int error = for_each_entry(directory, [&](const char*, unsigned char) { empty = false; });
  if (error == 0) return empty;
  errno = error;
  return std::nullopt;
}

int remove_in(int directory, const char* name) noexcept { return unlink_in(directory, name, 0); }

int remove_empty_in(int directory, const char* name) noexcept {
  return unlink_in(directory, name, AT_REMOVEDIR);
}

int remove_all_in(int directory) {
  int first = 0;
  const int listing = for_each_entry(directory, [&](const char* name, unsigned char type) {
    const int error = remove_entry(directory, name, type);
    if (first == 0) first = error;
  });
  return first != 0 ? first : listing;
}

int remove_tree_in(int directory, const char* name) {
  return remove_entry(directory, name, DT_UNKNOWN);
}

int remove_file_in(int directory, const std::string& name, dev_t device, ino_t inode) {
  if (!is_file(directory, name.c_str(), device, inode)) return ESTALE;
  const std::string aside = set_aside_start(inode) + "." + random_id() + ".tmp";
  if (host::rename_new_in(directory, name.c_str(), directory, aside.c_str()) != 0)
    // Where a rename cannot be told to replace nothing, the look at the name has to do.
    return errno == EINVAL || errno == ENOSYS ? remove_in(directory, name.c_str()) : errno;
  const bool own = is_file(directory, aside.c_str(), device, inode);
  const int error = own ? remove_in(directory, aside.c_str()) : ESTALE;
  if (error != 0) host::rename_new_in(directory, aside.c_str(), directory, name.c_str());
  return error;
}

bool is_set_aside(std::string_view name, const struct stat& node) {
  return S_ISREG(node.st_mode) && node.st_nlink == 1 && node.st_uid == ::geteuid() &&
         !nonce_between(name, set_aside_start(node.st_ino), ".tmp").empty();
}

}  // namespace tavro::posix_files
