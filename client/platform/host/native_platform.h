#pragma once

#include <filesystem>
#include <string_view>

namespace tavro {

/// The identifier of this build's platform in manifests and descriptors.
std::string_view native_platform() noexcept;

/// The absolute path of the running image, links resolved as far as they exist. Throws
/// `launcher_identity` when it cannot be told within 32768 bytes.
std::filesystem::path current_executable_path();

/// The name of the marker in a data folder that an install, a repair or an uninstall is changing.
/// Whatever stands there counts, of any type.
inline constexpr std::string_view incomplete_marker_name = ".tavro-setup-incomplete";

/// Throws `native_install_incomplete` while the marker stands in the directory.
void require_complete_native_install(const std::filesystem::path& directory);

/// Refuses an executable that lies anywhere below a folder in mid-install, or below a package that
/// is still being put together. Throws `native_install_incomplete`, or `unsafe_path` beyond 256
/// levels.
void require_complete_native_install_image(const std::filesystem::path& path);

}  // namespace tavro
