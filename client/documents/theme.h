#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace tavro {

struct Rgb {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;

  bool operator==(const Rgb&) const = default;
};

/// 0xrrggbb.
constexpr Rgb rgb(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 8),
          static_cast<std::uint8_t>(value)};
}

/// A 24-bit bitmap that was proved where it lies; sides in pixels.
struct ThemeImage {
  std::filesystem::path path;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool pixel_art = false;
};

struct ThemeFrame {
  Rgb outline;
  Rgb trim;
  Rgb gap;
  Rgb rivet;
};

/// How the client looks; `theme_definition.h` reads it. As constructed it is the built-in look,
/// which is not put through the rules for the theme of a brand and does not keep all of them.
struct Theme {
  Rgb background = rgb(0x14181f);
  Rgb panel = rgb(0x1d232e);
  Rgb raised = rgb(0x28303e);
  Rgb well = rgb(0x14181f);
  Rgb border = rgb(0x546073);
  std::optional<Rgb> button;
  Rgb hover = rgb(0x28303e);
  Rgb text = rgb(0xf0f3f7);
  Rgb muted = rgb(0xaab5c4);
  Rgb accent = rgb(0x2563c9);
  Rgb accent_hover = rgb(0x3474de);
  Rgb accent_text = rgb(0xffffff);
  Rgb danger = rgb(0xc4314b);
  Rgb danger_hover = rgb(0xd6425c);
  Rgb danger_text = rgb(0xffffff);
  Rgb warning = rgb(0xf0b429);
  Rgb success = rgb(0x3fb37f);
  Rgb focus = rgb(0xffd24a);
  Rgb disabled = rgb(0x303744);
  Rgb disabled_text = rgb(0x7d8796);
  Rgb paper = rgb(0x0d1117);
  Rgb ink = rgb(0xf0f3f7);
  Rgb ink_muted = rgb(0xaab5c4);
  /// Corners are square, not rounded.
  bool square = false;
  bool bevel = false;
  std::optional<ThemeFrame> frame;
  /// Pixels, 10 to 48 in a brand's theme.
  std::int32_t title_size = 28;
  std::int32_t heading_size = 20;
  std::int32_t body_size = 16;
  std::int32_t small_size = 14;
  /// TrueType or OpenType files; empty where the front end's own serve.
  std::filesystem::path regular_font;
  std::filesystem::path bold_font;
  std::filesystem::path title_font;
  /// At most 256 by 256 pixels, and 2048 by 1024.
  std::optional<ThemeImage> icon;
  std::optional<ThemeImage> banner;
};

/// A colour that every definition gives, by its key.
struct ThemeColor {
  std::string_view key;
  Rgb Theme::*field;
};

/// In the order in which they are read.
inline constexpr std::array<ThemeColor, 21> kThemeColors = {{
    {"background", &Theme::background},
    {"panel", &Theme::panel},
    {"raised", &Theme::raised},
    {"well", &Theme::well},
    {"border", &Theme::border},
    {"text", &Theme::text},
    {"muted", &Theme::muted},
    {"accent", &Theme::accent},
    {"accent_hover", &Theme::accent_hover},
    {"accent_text", &Theme::accent_text},
    {"danger", &Theme::danger},
    {"danger_hover", &Theme::danger_hover},
    {"danger_text", &Theme::danger_text},
    {"warning", &Theme::warning},
    {"success", &Theme::success},
    {"focus", &Theme::focus},
    {"disabled", &Theme::disabled},
    {"disabled_text", &Theme::disabled_text},
    {"paper", &Theme::paper},
    {"ink", &Theme::ink},
    {"ink_muted", &Theme::ink_muted},
}};

/// Two colours of a theme that must stand out against each other.
struct ThemeContrast {
  /// Their keys, such as "text on background".
  std::string_view label;
  Rgb front;
  Rgb ground;
  /// The ratio that they must reach.
  double least;
};

/// The look in force. Set once at the start, before other threads read it; there is no lock.
const Theme& theme();
void set_theme(Theme theme);

/// The contrast ratio of two colours, 1 to 21.
double contrast(Rgb a, Rgb b);

/// The pairs that the contrast rules name, in their order.
std::vector<ThemeContrast> theme_contrasts(const Theme& theme);

/// Throws `invalid_theme` for the first pair that stays below its ratio.
void require_contrasts(const Theme& theme);

}  // namespace tavro
