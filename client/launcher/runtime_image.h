#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavro {

/// Which version of which store an image belongs to.
struct ManagedVersion {
  /// The data folder, as `ordinary_root` tells it.
  std::filesystem::path root;
  std::string manifest_sha256;
};

/// Whether the folder bears the name of a temporary copy of a maintenance helper.
bool is_maintenance_copy(const std::filesystem::path& folder);

/// Refuses an image inside a temporary maintenance copy: `maintenance_copy`.
void require_maintenance_runtime_image(const std::filesystem::path& image);

/// Refuses an image from which nothing of the system may start: in a maintenance copy, in an
/// unfinished folder or package, or in a payload that is not published yet (`launcher_staging`).
/// Throws `launcher_identity` beyond 256 levels, and what the guard of unfinished folders throws.
void reject_staged_image(const std::filesystem::path& image);

/// The version whose payload holds the image, told from the path alone: the nearest folder
/// "launcher/versions/NAME" with a name of 64 bytes; nothing for an image outside a store. Throws
/// `launcher_state` when that name is no digest, `launcher_identity` beyond 256 levels.
std::optional<ManagedVersion> managed_version(const std::filesystem::path& image);

/// Whether both names lead to the same existing file or folder.
bool same_place(const std::filesystem::path& left, const std::filesystem::path& right);

}  // namespace tavro
