#include <algorithm>
#include <array>
#include <cstddef>

#include "documents/theme.h"
#include "domain/error.h"

namespace tavro {
namespace {

/// Of text that is to be read, and of the mark around what the keyboard is on.
constexpr double kTextContrast = 4.5;
constexpr double kFocusContrast = 3.0;

/// `base` to the power 2.4, for a base of at most 1: its square times the fifth root of that, by
/// Newton's steps, which come down to the root from above until they no longer move.
constexpr double power_2_4(double base) {
  const double square = base * base;
  double root = 1;
  for (double next = root;; root = next) {
    const double fourth = root * root * root * root;
    next = root - (root * fourth - square) / (5 * fourth);
    if (next >= root) return square * root;
  }
}

constexpr double linear(std::size_t channel) {
  const double share = static_cast<double>(channel) / 255.0;
  return share <= 0.04045 ? share / 12.92 : power_2_4((share + 0.055) / 1.055);
}

/// Of every channel value. Made by the compiler: for this alone each start would load the library
/// of mathematics.
constexpr auto linear_channels = [] {
  std::array<double, 256> table{};
  for (std::size_t channel = 0; channel < table.size(); ++channel) table[channel] = linear(channel);
  return table;
}();

double luminance(Rgb color) {
  return 0.2126 * linear_channels[color.r] + 0.7152 * linear_channels[color.g] +
         0.0722 * linear_channels[color.b];
}

}  // namespace

double contrast(Rgb a, Rgb b) {
  const double first = luminance(a);
  const double second = luminance(b);
  return (std::max(first, second) + 0.05) / (std::min(first, second) + 0.05);
}

std::vector<ThemeContrast> theme_contrasts(const Theme& t) {
  std::vector<ThemeContrast> pairs = {
      {"text on background", t.text, t.background, kTextContrast},
      {"text on panel", t.text, t.panel, kTextContrast},
      {"text on raised", t.text, t.raised, kTextContrast},
      {"text on hover", t.text, t.hover, kTextContrast},
      {"muted on background", t.muted, t.background, kTextContrast},
      {"muted on panel", t.muted, t.panel, kTextContrast},
      {"warning on panel", t.warning, t.panel, kTextContrast},
      {"success on background", t.success, t.background, kTextContrast},
      {"accent_text on accent", t.accent_text, t.accent, kTextContrast},
      {"accent_text on accent_hover", t.accent_text, t.accent_hover, kTextContrast},
      {"danger_text on danger", t.danger_text, t.danger, kTextContrast},
      {"danger_text on danger_hover", t.danger_text, t.danger_hover, kTextContrast},
      {"ink on paper", t.ink, t.paper, kTextContrast},
      {"ink_muted on paper", t.ink_muted, t.paper, kTextContrast},
  };
  if (t.button) pairs.push_back({"text on button", t.text, *t.button, kTextContrast});
  pairs.push_back({"focus on background", t.focus, t.background, kFocusContrast});
  pairs.push_back({"focus on panel", t.focus, t.panel, kFocusContrast});
  return pairs;
}

void require_contrasts(const Theme& theme) {
  for (const ThemeContrast& pair : theme_contrasts(theme))
    require(contrast(pair.front, pair.ground) >= pair.least, "invalid_theme", [&]() -> std::string {
      if (pair.least == kFocusContrast)
        return "Theme focus colour is below 3:1 against the background or panel";
      return "Theme contrast is below 4.5:1 for " + std::string(pair.label);
    });
}

}  // namespace tavro
