#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>

namespace tavro {

/// What a volume says of itself, seen from one directory. Values that came from elsewhere than
/// `inspect_storage_volume` are proved by `validate` wherever they are used.
struct StorageVolume {
  std::filesystem::path path;
  /// "device:" and the decimal device number of the directory.
  std::string identity;
  unsigned long long allocation_unit = 0;
  unsigned long long capacity_bytes = 0;
  /// Bytes available to this user.
  unsigned long long available_bytes = 0;
  /// File entries; both are absent when the volume keeps no usable counters.
  std::optional<unsigned long long> inode_capacity;
  std::optional<unsigned long long> available_inodes;

  /// Throws `volume_query` for geometry that cannot be, or counters that are incomplete or invalid.
  void validate() const;
};

/// `directory` must be an absolute path of an ordinary directory: `unsafe_path`. A volume that
/// cannot be inspected is `volume_query`.
StorageVolume inspect_storage_volume(const std::filesystem::path& directory);

/// Device and inode, in that order, of the directory itself; a link or a directory that changes
/// meanwhile is `unsafe_path`.
std::array<unsigned long long, 2> inspect_storage_directory(const std::filesystem::path& directory);

/// Arithmetic on sizes and counts; an overflow is `size_limit`.
namespace storage_sum {
unsigned long long add(unsigned long long left, unsigned long long right);
unsigned long long multiply(unsigned long long left, unsigned long long right);
}  // namespace storage_sum

}  // namespace tavro
