#include <endian.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "platform/host/uninstall_entry.h"

namespace tavro::host {
namespace {

constexpr char access_list[] = "system.posix_acl_access";
constexpr char default_list[] = "system.posix_acl_default";
constexpr std::size_t max_entries = 128;

/// An entry that names its subject, and every right that a default list hands on beyond the owner,
/// lets somebody in; the classes of an access list are the mode bits again. The mask is no excuse:
/// a later change of the mode lifts it.
AccessLists judge(const posix_acl_xattr_entry& entry, bool inherited) noexcept {
  const bool grants = le16toh(entry.e_perm) != 0;
  switch (le16toh(entry.e_tag)) {
    case ACL_USER_OBJ:
    case ACL_MASK:
      return AccessLists::nobody_else;
    case ACL_USER:
      return grants && le32toh(entry.e_id) != geteuid() ? AccessLists::somebody_else
                                                        : AccessLists::nobody_else;
    case ACL_GROUP_OBJ:
    case ACL_OTHER:
      return grants && inherited ? AccessLists::somebody_else : AccessLists::nobody_else;
    case ACL_GROUP:
      return grants ? AccessLists::somebody_else : AccessLists::nobody_else;
    default:
      return AccessLists::unknown_rule;
  }
}

/// The attribute is read as the kernel gives it, since the library reaches a default list by path
/// alone and a path can change.
AccessLists inspect_list(int descriptor, const char* name) noexcept {
  std::array<char, sizeof(posix_acl_xattr_header) + max_entries * sizeof(posix_acl_xattr_entry)>
      list;
  const ssize_t size =
      retried([&] { return ::fgetxattr(descriptor, name, list.data(), list.size()); });
  if (size < 0) {
    if (errno == ENODATA || errno == EOPNOTSUPP) return AccessLists::nobody_else;
    return errno == ERANGE ? AccessLists::beyond_bound : AccessLists::unreadable;
  }
  const auto length = static_cast<std::size_t>(size);
  posix_acl_xattr_header header;
  if (length < sizeof header || (length - sizeof header) % sizeof(posix_acl_xattr_entry) != 0)
    return AccessLists::unreadable;
  std::memcpy(&header, list.data(), sizeof header);
  if (le32toh(header.a_version) != POSIX_ACL_XATTR_VERSION) return AccessLists::unreadable;
  for (std::size_t at = sizeof header; at < length; at += sizeof(posix_acl_xattr_entry)) {
    posix_acl_xattr_entry entry;
    std::memcpy(&entry, list.data() + at, sizeof entry);
    const AccessLists verdict = judge(entry, name == default_list);
    if (verdict != AccessLists::nobody_else) return verdict;
  }
  return AccessLists::nobody_else;
}

int clear_list(int descriptor, const char* name) noexcept {
  // Looking first is the cheaper call, and nearly always the only one.
  if (retried([&] { return ::fgetxattr(descriptor, name, nullptr, 0); }) >= 0)
    return retried([&] { return system_calls().fremovexattr(descriptor, name); });
  return errno == ENODATA || errno == EOPNOTSUPP ? 0 : -1;
}

}  // namespace

std::string_view system_name() noexcept { return "Linux"; }

std::string_view platform() noexcept { return "linux-x86_64"; }

std::size_t longest_path() noexcept { return PATH_MAX - 1; }

int search_only() noexcept { return O_PATH; }

std::string running_image(std::size_t max_bytes) {
  // One byte more than allowed: a path that was cut shows itself by filling it.
  std::string path(max_bytes + 1, '\0');
  const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
  const bool whole = size > 0 && static_cast<std::size_t>(size) <= max_bytes;
  path.resize(whole ? static_cast<std::size_t>(size) : 0);
  return path;
}

int full_sync(int descriptor) noexcept {
  return retried([&] { return system_calls().fsync(descriptor); });
}

void begin_writeback(int descriptor) noexcept {
  ::sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WRITE);
}

int preallocate(int descriptor, long long length, long long size) noexcept {
  const auto& calls = system_calls();
  // The whole range, since blocks that a file has need not be the first ones.
  if (retried([&] { return calls.fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, size); }) == 0)
    return 0;
  const int error = errno;
  static_assert(EOPNOTSUPP == ENOTSUP);
  if (error == ENOTSUP || error == ENOSYS) return error;
  // Some file systems keep what they got before the space ran out: setting the length anew gives
  // back what lies beyond it.
  retried([&] { return calls.ftruncate(descriptor, length); });
  return error;
}

// Only a directory has a default list: for a file the second call is saved.
AccessLists inspect_access_lists(int descriptor, bool directory) noexcept {
  const AccessLists verdict = inspect_list(descriptor, access_list);
  if (!directory || verdict != AccessLists::nobody_else) return verdict;
  return inspect_list(descriptor, default_list);
}

int clear_access_lists(int descriptor, bool directory) noexcept {
  const int answer = clear_list(descriptor, access_list);
  return directory && answer == 0 ? clear_list(descriptor, default_list) : answer;
}

int rename_new(int from_directory, const char* from, int to_directory, const char* to) noexcept {
  return retried([&] {
    return system_calls().renameat2(from_directory, from, to_directory, to, RENAME_NOREPLACE);
  });
}

int exchange_names(int left_directory, const char* left, int right_directory,
                   const char* right) noexcept {
  return retried([&] {
    return system_calls().renameat2(left_directory, left, right_directory, right, RENAME_EXCHANGE);
  });
}

int open_pipe(int (&ends)[2]) noexcept { return ::pipe2(ends, O_CLOEXEC); }

int open_socket_pair(int (&ends)[2]) noexcept {
  return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
}

void close_on_exec_from(int first) noexcept {
  constexpr unsigned close_on_exec = 1U << 2;  // CLOSE_RANGE_CLOEXEC, which older headers lack
  constexpr long close_range_call = 436;       // of every architecture
  if (::syscall(close_range_call, first, ~0U, close_on_exec) == 0) return;
  // An older kernel: one by one. A limit that was lowered meanwhile may hide some above it.
  struct rlimit limit {};
  constexpr rlim_t most = 1048576;
  const bool known = ::getrlimit(RLIMIT_NOFILE, &limit) == 0;
  const auto end = static_cast<int>(known ? std::min(limit.rlim_cur, most) : most);
  for (int descriptor = first; descriptor < end; ++descriptor)
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

long write_to_pipe(int pipe, const void* bytes, std::size_t size) noexcept {
  return retried([&] { return ::write(pipe, bytes, size); });
}

long send_without_signal(int socket, const void* bytes, std::size_t size) noexcept {
  return retried([&] { return ::send(socket, bytes, size, MSG_NOSIGNAL); });
}

const char* desktop_opener() noexcept { return "xdg-open"; }

ShortcutForm shortcut_form() noexcept { return ShortcutForm::desktop_entry; }

bool register_launch_handler(const std::string&) noexcept { return false; }

bool needs_certificate_bundle() noexcept { return true; }

std::string certificate_bundle() {
  constexpr std::array places{
      "/etc/ssl/certs/ca-certificates.crt",
      "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
      "/etc/pki/tls/certs/ca-bundle.crt",
      "/etc/ssl/ca-bundle.pem",
      "/etc/ssl/cert.pem",
  };
  const auto* const found = std::find_if(
      places.begin(), places.end(), [](const char* place) { return ::access(place, R_OK) == 0; });
  return found == places.end() ? "" : *found;
}

}  // namespace tavro::host

namespace tavro {

// There is no list of installed programs for one user here: programs are known by desktop entries.
void register_uninstall_entry(const UninstallEntry&) {}

void remove_uninstall_entry(std::string_view) {}

}  // namespace tavro
