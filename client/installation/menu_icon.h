#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tavro {

/// The largest PNG image in the bytes of an .ico file; empty when it has none. The bytes may come
/// from anywhere.
std::string largest_png(std::string_view icon);

/// The image that stands for the installation in `root` in a menu: the brand's icon as a PNG file
/// beside it, which is written here, or the icon itself when there is no PNG in it. Empty without a
/// brand's icon. Best effort, raises nothing.
std::filesystem::path menu_icon(const std::filesystem::path& root) noexcept;

}  // namespace tavro
