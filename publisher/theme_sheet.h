#pragma once

#include <string>

#include "documents/theme.h"

namespace tavro {

/// "4.47", cut and not rounded, so that a ratio below a limit never reads like the limit.
std::string ratio_text(double ratio);

/// A picture (SVG) of a theme for a person to look at: each colour with its key and its value, and
/// each pair of the contrast rules as it looks, with its ratio beside the least one.
std::string theme_sheet(const Theme& theme);

}  // namespace tavro
