#include "platform/files/private_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <string>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro::posix_files {
namespace {

constexpr unsigned long long block_bytes = 512;
constexpr std::size_t max_path_bytes = 4096;
constexpr mode_t foreign_bits = mode_bits & ~mode_t{S_IRWXU};

bool owned(const struct stat& node) { return node.st_uid == ::geteuid(); }

bool single_file(const struct stat& node) { return S_ISREG(node.st_mode) && node.st_nlink == 1; }

bool private_by_mode(const struct stat& node, bool directory) {
  if (directory) return S_ISDIR(node.st_mode) && (node.st_mode & mode_bits) == S_IRWXU;
  return single_file(node) && (node.st_mode & foreign_bits) == 0;
}

const char* remedy(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return "; free space or file entries on its volume and try again";
    case EMFILE:
    case ENFILE:
      return "; close other programs and try again";
    case EROFS:
      return "; choose a place that can be written";
    case ENOTEMPTY:
      return "; move it away and try again";
    case EACCES:
    case EPERM:
      return "; allow this user to enter and change the folder that holds it";
    default:
      return "";
  }
}

std::string as_end(const std::filesystem::path& path) {
  return path.empty() ? std::string() : ": " + path_utf8(path);
}

}  // namespace

UniqueFd open(const std::filesystem::path& path, int flags, mode_t mode) {
  return UniqueFd(retried([&] { return system_calls().open(path.c_str(), flags, mode); }));
}

std::optional<struct stat> node_of(int descriptor) {
  struct stat node {};
  if (retried([&] { return ::fstat(descriptor, &node); }) != 0) return std::nullopt;
  return node;
}

std::optional<struct stat> node_at(const std::filesystem::path& path) {
  struct stat node {};
  if (retried([&] { return ::lstat(path.c_str(), &node); }) != 0) return std::nullopt;
  return node;
}

std::string failed_because(const std::filesystem::path& path, int error) {
  if (error == ENOENT || error == ELOOP || error == ENOTDIR) return {};
  return ": " + path_utf8(path) + because(error);
}

std::string because(int error) {
  return ": " + std::generic_category().message(error) + " (" + std::to_string(error) + ")" +
         remedy(error);
}

int sync(int descriptor) { return host::full_sync(descriptor); }

int reserve(int descriptor, unsigned long long size) {
  if (size > static_cast<unsigned long long>(std::numeric_limits<off_t>::max())) return EFBIG;
  if (size == 0) return 0;
  const auto node = node_of(descriptor);
  if (!node) return errno;
  if (!S_ISREG(node->st_mode) || node->st_size < 0 || node->st_blocks < 0) return EINVAL;
  unsigned long long allocated = 0;
  const auto blocks = static_cast<unsigned long long>(node->st_blocks);
  if (__builtin_mul_overflow(blocks, block_bytes, &allocated)) return EOVERFLOW;
  const auto length = static_cast<off_t>(size);
  if (size > allocated) {
    if (const int error = host::preallocate(descriptor, node->st_size, length)) return error;
  }
  return retried([&] { return system_calls().ftruncate(descriptor, length); }) == 0 ? 0 : errno;
}

void secure_new_private(int descriptor, bool directory) {
  const auto node = node_of(descriptor);
  const auto is_new = [&] {
    return directory ? S_ISDIR(node->st_mode) : single_file(*node) && node->st_size == 0;
  };
  require(node && owned(*node) && is_new(), "permissions",
          [] { return host::naming_system("New ", " private storage ownership changed"); });
  // Lists first: while one stands, a part of the mode bits is the list's mask.
  const mode_t mode = directory ? S_IRWXU : S_IRUSR | S_IWUSR;
  const bool secured = host::clear_access_lists(descriptor, directory) == 0 &&
                       retried([&] { return system_calls().fchmod(descriptor, mode); }) == 0;
  require(secured, "permissions",
          [] { return host::naming_system("Cannot make new ", " storage private"); });
  private_node(descriptor, directory);
}

void private_node(int descriptor, bool directory, const std::filesystem::path& path) {
  const auto node = node_of(descriptor);
  require(node && owned(*node) && private_by_mode(*node, directory), "permissions", [&path] {
    return host::naming_system(
               "", " private storage must be ordinary, owned and accessible only to this user") +
           as_end(path);
  });
  require_private_acl(descriptor, directory, path);
}

void require_private_acl(int descriptor, bool directory, const std::filesystem::path& path) {
  using host::AccessLists;
  const auto refuse = [&path](std::string_view before, std::string_view after) {
    fail("permissions", host::naming_system(before, after) + as_end(path));
  };
  switch (host::inspect_access_lists(descriptor, directory)) {
    case AccessLists::nobody_else:
      return;
    case AccessLists::unreadable:
      return refuse("Cannot inspect the ", " private storage ACL");
    case AccessLists::owner_unknown:
      return refuse("Cannot identify the ", " storage owner");
    case AccessLists::beyond_bound:
      return refuse("", " storage ACL exceeds its bound or is invalid");
    case AccessLists::unknown_rule:
      return refuse("Unknown ", " private storage ACL rule");
    case AccessLists::somebody_else:
      return refuse("Existing ", " storage grants another identity access; preserve it");
  }
}

void require_private_path(const std::filesystem::path& path, bool directory) {
  require(path.is_absolute() && bounded_path(path), "unsafe_path",
          [] { return host::naming_system("", " private storage needs a bounded absolute path"); });
  const int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | (directory ? O_DIRECTORY : 0);
  const UniqueFd file = open(path, flags);
  require(bool(file), "permissions", [&path, error = errno] {
    return host::naming_system("Cannot open ordinary ", " private storage") +
           failed_because(path, error);
  });
  private_node(file.get(), directory, path);
  const auto held = node_of(file.get());
  const auto named = node_at(path);
  require(held && named && same_node(*held, *named), "permissions", [] {
    return host::naming_system("", " private storage path changed during inspection");
  });
}

bool same_node(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino &&
         (left.st_mode & S_IFMT) == (right.st_mode & S_IFMT);
}

bool bounded_path(const std::filesystem::path& path) {
  const std::string& text = path.native();
  return !text.empty() && text.size() <= max_path_bytes && text.find('\0') == std::string::npos;
}

}  // namespace tavro::posix_files
