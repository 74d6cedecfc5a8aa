#pragma once

#include <filesystem>
#include <string>

#include "platform/host/host_volume.h"

/// What makes two destinations the same, whatever paths lead to them.
///
/// A key is an opaque text that is only compared: for equality, or, with "/" behind it, as the
/// beginning of another key, which then lies below it. Two keys are equal exactly when they name
/// one place on one volume: it does not matter where the volume is mounted, nor how a name is
/// spelled that the file system takes for the same. A destination that does not exist yet has the
/// key that it will have. How far a key outlives a reboot depends on the volume; see
/// `host::volume_calls`.
namespace tavro::path_identity {

enum class LastComponent { directory, directory_or_file };

/// The key of a destination of at most 4096 bytes, which is a directory, does not exist yet, or,
/// where that is allowed, is a regular file. Throws `unsafe_path` for everything else: a link that
/// is not the system's, a volume that is not local or not known, and whatever changes meanwhile.
std::string key(const std::filesystem::path& path, LastComponent last,
                const host::VolumeCalls& calls = host::volume_calls());

std::string directory_key(const std::filesystem::path& path);

/// The last component may also be a regular file.
std::string path_key(const std::filesystem::path& path);

/// Whether a key names the place of another one or something below it.
bool at_or_below(const std::string& key, const std::string& above);

}  // namespace tavro::path_identity
