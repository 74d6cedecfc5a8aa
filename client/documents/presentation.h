#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "documents/bitmap.h"
#include "domain/json.h"

namespace tavro {

/// Pixels: the bound of each side of a game's bitmap.
inline constexpr unsigned kMaxArtworkSide = 128;
/// Bytes of the largest such file.
inline constexpr std::size_t kMaxArtworkBytes =
    kBitmapHeaderBytes + bitmap_row_bytes(kMaxArtworkSide) * kMaxArtworkSide;

/// The one bitmap of a game.
struct GameArtwork {
  /// Pixels, 1 to `kMaxArtworkSide`.
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  /// The whole BMP file as lower-case hexadecimal text; `validate_presentation_bitmap` holds.
  std::string bmp_hex;
  /// 1 to 200 bytes that stand for the bitmap.
  std::string alternative_text;
};

/// What a user sees of a game. No text holds a control character, but line breaks in the
/// description.
struct GamePresentation {
  /// 1 to 200 bytes.
  std::string display_name;
  /// At most 200 bytes, often empty.
  std::string tagline;
  /// At most 4096 bytes, often empty.
  std::string description;
  /// One to four characters.
  std::string monogram;
  std::optional<GameArtwork> artwork;

  /// Proves the `presentation` member of a game manifest, `null` where it has none, or throws
  /// `invalid_presentation`. The texts are UTF-8, as `parse_json` lets them through. Without a
  /// monogram of its own the presentation has the first character of the name.
  static GamePresentation parse(std::string_view display_name, const json& value);

  /// The display data without the pixels, for a front end.
  json summary() const;
};

/// Proves that the bytes are exactly one uncompressed 24-bit BMP file of this size, rows bottom-up,
/// with nothing behind the last row. The pixels are not looked at. Throws `invalid_presentation`.
void validate_presentation_bitmap(std::string_view bytes, unsigned width, unsigned height);

enum class LineBreaks { refused, allowed };

/// True for a text with a control character of ASCII or, as UTF-8, of C1. Tab, line feed and
/// carriage return count as such unless line breaks are allowed.
bool has_control_characters(std::string_view text, LineBreaks line_breaks);

}  // namespace tavro
