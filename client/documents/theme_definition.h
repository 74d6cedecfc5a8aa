#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "documents/theme.h"
#include "domain/json.h"

/// The document by which a brand gives the client another look, with the files that it names.
namespace tavro {

/// The definition of a theme, in its folder.
inline constexpr std::string_view kThemeDefinition = "theme.json";
/// Bounds of the definition and of the largest file beside it, in bytes.
inline constexpr std::size_t kThemeDefinitionBytes = 65536;
inline constexpr std::size_t kThemeFontBytes = 4194304;

/// From the name of an asset to the path where it lies.
using ThemeResolver = std::function<std::filesystem::path(const std::string& name)>;

/// The assets that a definition uses: at most 12 distinct plain names, fonts first, then images,
/// then notices. Throws `invalid_theme`. Only what names files is looked at.
std::vector<std::string> theme_files(const json& definition);

/// Proves a definition and the assets that it uses, each of which is read within its bound and
/// dropped again: fonts of at most 4 MiB, notices of 256 KiB, and images of the size that their
/// bound in pixels makes. Whatever the definition leaves out stays as built in. Throws
/// `invalid_theme`, and what `read_file` throws.
Theme parse_theme(const json& definition, const ThemeResolver& resolver);

/// The same without the contrast rules, for whoever is to see all ratios at once.
Theme parse_theme_before_contrasts(const json& definition, const ThemeResolver& resolver);

/// The theme in a folder, or nothing if there is none or it breaks a rule: a damaged theme must not
/// stop the client. Lets no standard exception escape.
std::optional<Theme> load_theme(const std::filesystem::path& folder);

}  // namespace tavro
