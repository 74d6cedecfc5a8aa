#include "publisher/theme_sheet.h"

#include <array>
#include <cmath>

#include "domain/crypto.h"

namespace tavro {
namespace {

/// Pixels. Colours fill a grid of this many columns; the pairs stand below it in two.
constexpr int margin = 24;
constexpr int columns = 6;
constexpr int swatch_width = 152;
constexpr int swatch_height = 56;
constexpr int swatch_pitch = 104;
constexpr int pair_columns = 2;
constexpr int pair_width = swatch_width * columns / pair_columns;
constexpr int pair_height = 36;
constexpr int pair_pitch = 44;
constexpr int sample_width = 260;
constexpr int gap = 12;

struct Swatch {
  std::string key;
  Rgb color;
};

std::string color_text(Rgb color) {
  const std::array<unsigned char, 3> bytes = {color.r, color.g, color.b};
  return "#" + hex(bytes);
}

std::vector<Swatch> swatches(const Theme& theme) {
  std::vector<Swatch> all;
  for (const ThemeColor& color : kThemeColors)
    all.push_back({std::string(color.key), theme.*color.field});
  all.push_back({"hover", theme.hover});
  if (theme.button) all.push_back({"button", *theme.button});
  if (theme.frame) {
    all.push_back({"frame outline", theme.frame->outline});
    all.push_back({"frame trim", theme.frame->trim});
    all.push_back({"frame gap", theme.frame->gap});
    all.push_back({"frame rivet", theme.frame->rivet});
  }
  return all;
}

std::string attribute(std::string_view name, const std::string& value) {
  return ' ' + std::string(name) + "=\"" + value + '"';
}

std::string rectangle(int x, int y, int width, int height, const std::string& fill) {
  return "<rect" + attribute("x", std::to_string(x)) + attribute("y", std::to_string(y)) +
         attribute("width", std::to_string(width)) + attribute("height", std::to_string(height)) +
         attribute("fill", fill) + " stroke=\"#808080\"/>\n";
}

/// Nothing that a designer writes comes into it, so that nothing needs an escape.
std::string words(int x, int y, const std::string& fill, const std::string& text) {
  return "<text" + attribute("x", std::to_string(x)) + attribute("y", std::to_string(y)) +
         attribute("fill", fill) + ">" + text + "</text>\n";
}

int rows_of(std::size_t count, int per_row) {
  return (static_cast<int>(count) + per_row - 1) / per_row;
}

std::string swatch_grid(const std::vector<Swatch>& all) {
  std::string grid;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const int x = margin + static_cast<int>(i) % columns * swatch_width;
    const int y = margin + static_cast<int>(i) / columns * swatch_pitch;
    grid += rectangle(x, y, swatch_width - gap, swatch_height, color_text(all[i].color));
    grid += words(x, y + swatch_height + 16, "#000000", all[i].key);
    grid += words(x, y + swatch_height + 34, "#505050", color_text(all[i].color));
  }
  return grid;
}

std::string pair_list(const std::vector<ThemeContrast>& pairs, int top) {
  std::string list;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const ThemeContrast& pair = pairs[i];
    const int x = margin + static_cast<int>(i) % pair_columns * pair_width;
    const int y = top + static_cast<int>(i) / pair_columns * pair_pitch;
    const double ratio = contrast(pair.front, pair.ground);
    const bool low = ratio < pair.least;
    list += rectangle(x, y, sample_width, pair_height, color_text(pair.ground));
    list += words(x + gap, y + 24, color_text(pair.front), std::string(pair.label));
    list += words(x + sample_width + gap, y + 24, low ? "#c00000" : "#000000",
                  ratio_text(ratio) + ", at least " + ratio_text(pair.least));
  }
  return list;
}

}  // namespace

std::string ratio_text(double ratio) {
  const auto hundredths = std::to_string(100 + static_cast<long>(ratio * 100 + 1e-9) % 100);
  return std::to_string(static_cast<long>(ratio + 1e-11)) + '.' + hundredths.substr(1);
}

std::string theme_sheet(const Theme& theme) {
  const std::vector<Swatch> all = swatches(theme);
  const std::vector<ThemeContrast> pairs = theme_contrasts(theme);
  const int top = margin + rows_of(all.size(), columns) * swatch_pitch + gap;
  const std::string width = std::to_string(2 * margin + columns * swatch_width);
  const std::string height =
      std::to_string(top + rows_of(pairs.size(), pair_columns) * pair_pitch + margin);
  return "<svg xmlns=\"http://www.w3.org/2000/svg\"" + attribute("width", width) +
         attribute("height", height) +
         " font-family=\"sans-serif\" font-size=\"14\">\n"
         "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n" +
         swatch_grid(all) + pair_list(pairs, top) + "</svg>\n";
}

}  // namespace tavro
