#include "platform/storage/file_reservation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "domain/error.h"
#include "platform/files/private_storage.h"
#include "platform/host/host.h"

namespace tavro {
namespace {
constexpr char changed[] = "allocation_changed";
}

void OpenReservation::open_for_inspection(std::string_view message) {
  descriptor = posix_files::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  require(bool(descriptor), "unsafe_path", message);
}

void OpenReservation::require_path(std::string_view message) const {
  require(path_names_file(), changed, message);
}

bool OpenReservation::path_names_file() const noexcept {
  const auto named = posix_files::node_at(path);
  return named && S_ISREG(named->st_mode) && named->st_dev == device && named->st_ino == inode;
}

unsigned long long OpenReservation::inspect() {
  const auto node = posix_files::node_of(descriptor.get());
  require(node && S_ISREG(node->st_mode) && node->st_nlink == 1 && node->st_size >= 0,
          "unsafe_path", "Allocation requires an ordinary single-link file");
  if (private_file) {
    constexpr mode_t forbidden = posix_files::mode_bits & ~mode_t{S_IRWXU};
    require(node->st_uid == ::geteuid() && (node->st_mode & forbidden) == 0, "permissions",
            [] { return host::naming_system("", " allocation must remain private and owned"); });
    posix_files::require_private_acl(descriptor.get(), false);
  }
  require(!identity_known || (device == node->st_dev && inode == node->st_ino), changed,
          "Prepared allocation identity changed");
  device = node->st_dev;
  inode = node->st_ino;
  identity_known = true;
  return static_cast<unsigned long long>(node->st_size);
}

void OpenReservation::require_in_bounds(unsigned long long least, std::string_view message) {
  const auto present = inspect();
  require(least <= present && present <= size && path_names_file(), changed, message);
}

}  // namespace tavro
