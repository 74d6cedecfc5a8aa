#include "platform/storage/storage_volume.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <limits>

#include "domain/error.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

constexpr auto unknown = std::numeric_limits<unsigned long long>::max();

void read_entry_counters(const struct statvfs& geometry, StorageVolume& volume) {
  // A volume without a fixed table of entries says 0, or fills the field with ones: its own of 32
  // bits, or the whole one.
  constexpr auto all_ones = [](fsfilcnt_t count) {
    return count == std::numeric_limits<std::uint32_t>::max() ||
           count == std::numeric_limits<fsfilcnt_t>::max();
  };
  if (geometry.f_files == 0 || all_ones(geometry.f_files) || all_ones(geometry.f_favail)) return;
  volume.inode_capacity = geometry.f_files;
  volume.available_inodes = geometry.f_favail;
}

}  // namespace

void StorageVolume::validate() const {
  require(path.is_absolute() && !identity.empty() && allocation_unit != 0 &&
              capacity_bytes != unknown && available_bytes <= capacity_bytes,
          "volume_query", "Storage capacity or allocation geometry is unavailable");
  require(inode_capacity.has_value() == available_inodes.has_value(), "volume_query",
          "Storage file-entry counters are incomplete");
  if (!inode_capacity) return;
  require(
      *inode_capacity != 0 && *inode_capacity != unknown && *available_inodes <= *inode_capacity,
      "volume_query", "Storage file-entry counters are invalid");
}

StorageVolume inspect_storage_volume(const std::filesystem::path& directory) {
  std::error_code ignored;
  // A separator at the end would lead through a link.
  const auto itself = directory.has_filename() || directory == directory.root_path()
                          ? directory
                          : directory.parent_path();
  require(directory.is_absolute() && std::filesystem::is_directory(directory, ignored) &&
              !std::filesystem::is_symlink(itself, ignored),
          "unsafe_path", "Storage needs an ordinary absolute directory");
  const auto space = std::filesystem::space(directory);
  struct stat status {};
  struct statvfs geometry {};
  require(retried([&] { return ::stat(directory.c_str(), &status); }) == 0 &&
              retried([&] { return ::statvfs(directory.c_str(), &geometry); }) == 0,
          "volume_query", "Cannot inspect storage volume allocation geometry");

  StorageVolume volume;
  volume.path = directory;
  volume.identity = "device:" + std::to_string(status.st_dev);
  volume.allocation_unit = geometry.f_frsize != 0 ? geometry.f_frsize : geometry.f_bsize;
  volume.capacity_bytes = space.capacity;
  volume.available_bytes = space.available;
  read_entry_counters(geometry, volume);
  volume.validate();
  return volume;
}

std::array<unsigned long long, 2> inspect_storage_directory(
    const std::filesystem::path& directory) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  // With a separator at its end the path would lead through a link.
  const auto path = directory.has_filename() ? directory : directory.parent_path();
  const UniqueFd descriptor = posix_files::open(path, flags);
  require(bool(descriptor), "unsafe_path", "Cannot inspect prepared directory identity");
  const auto held = posix_files::node_of(descriptor.get());
  const auto named = posix_files::node_at(path);
  require(held && named && S_ISDIR(held->st_mode) && posix_files::same_node(*held, *named),
          "unsafe_path", "Prepared directory is linked, replaced or unavailable");
  return {held->st_dev, held->st_ino};
}

namespace storage_sum {
namespace {
constexpr char overflowed[] = "Peak storage calculation overflowed";
}

unsigned long long add(unsigned long long left, unsigned long long right) {
  require(right <= unknown - left, "size_limit", overflowed);
  return left + right;
}

unsigned long long multiply(unsigned long long left, unsigned long long right) {
  require(left == 0 || right <= unknown / left, "size_limit", overflowed);
  return left * right;
}

}  // namespace storage_sum
}  // namespace tavro
