#pragma once

#include <filesystem>
#include <optional>

#include "installation/installed_brand.h"
#include "package/brand.h"

namespace tavro {

/// The brand in the installation record of the data folder `root`. Never throws: without a readable
/// record there is no brand, for a damaged record must not stop a command that only needs a name.
std::optional<Brand> installed_brand(const std::filesystem::path& root);

/// Gives this process the name, the theme and the icon of the brand installed in `root`, if there
/// is one.
/// Never throws. Belongs to the start of a command, before any other thread exists.
void use_installed_brand(const std::filesystem::path& root);

/// Puts the theme installed in `root` in force. Without one that keeps every rule the look stays as
/// it is. Never throws.
void use_installed_theme(const std::filesystem::path& root);

/// Where an installation keeps the icon of its brand; nothing is checked on disk.
std::filesystem::path brand_icon_path(const std::filesystem::path& root);

}  // namespace tavro
