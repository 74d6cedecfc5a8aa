#include "documents/presentation.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <utility>

#include "documents/bitmap.h"
#include "domain/crypto.h"
#include "domain/error.h"

namespace tavro {
namespace {

constexpr std::string_view kBitmapFormat = "bmp-rgb24-v1";

void check_text(std::string_view text, std::size_t max_bytes, LineBreaks line_breaks) {
  require(text.size() <= max_bytes, "invalid_presentation",
          "Game presentation text exceeds its bound");
  require(!has_control_characters(text, line_breaks), "invalid_presentation",
          "Game presentation contains unsupported control characters");
}

std::string text(const json& value, std::size_t max_bytes, LineBreaks line_breaks) {
  require(value.is_string(), "invalid_presentation", "Game presentation must contain text");
  const auto& content = value.get_ref<const std::string&>();
  check_text(content, max_bytes, line_breaks);
  return content;
}

std::string first_character(std::string_view name) {
  const auto lead = static_cast<unsigned char>(name.front());
  std::size_t length = 1;
  if (lead >= 0x80) length = 2;
  if (lead >= 0xe0) length = 3;
  if (lead >= 0xf0) length = 4;
  return std::string(name.substr(0, length));
}

auto count_characters(std::string_view text) {
  return std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; });
}

bool is_artwork_side(std::uint64_t pixels) { return pixels >= 1 && pixels <= kMaxArtworkSide; }

bool is_artwork_encoding(std::string_view hexadecimal) {
  return hexadecimal.size() <= 2 * kMaxArtworkBytes && hexadecimal.size() % 2 == 0 &&
         is_lower_hex(hexadecimal, hexadecimal.size());
}

GameArtwork read_artwork(const json& value) {
  require(has_exactly(value, {"format", "width", "height", "bmp_hex", "alternative_text"}) &&
              value.at("format") == kBitmapFormat && value.at("width").is_number_integer() &&
              value.at("height").is_number_integer(),
          "invalid_presentation", "Unknown game artwork descriptor");
  // A negative number comes out far beyond the bound.
  const auto width = value.at("width").get<std::uint64_t>();
  const auto height = value.at("height").get<std::uint64_t>();
  require(is_artwork_side(width) && is_artwork_side(height), "invalid_presentation",
          "Game artwork dimensions exceed 128 pixels");
  GameArtwork artwork;
  artwork.width = static_cast<std::uint32_t>(width);
  artwork.height = static_cast<std::uint32_t>(height);
  artwork.alternative_text = text(value.at("alternative_text"), 200, LineBreaks::refused);
  require(!artwork.alternative_text.empty(), "invalid_presentation",
          "Game artwork needs alternative text");
  require(value.at("bmp_hex").is_string(), "invalid_presentation",
          "Game artwork pixels are missing");
  artwork.bmp_hex = value.at("bmp_hex").get<std::string>();
  require(is_artwork_encoding(artwork.bmp_hex), "invalid_presentation",
          "Game artwork encoding exceeds its bound");
  const auto bitmap = unhex(artwork.bmp_hex, 2 * kMaxArtworkBytes);
  validate_presentation_bitmap({reinterpret_cast<const char*>(bitmap.data()), bitmap.size()},
                               artwork.width, artwork.height);
  return artwork;
}

void require_known_members(const json& value) {
  constexpr std::array<std::string_view, 4> kMembers = {"tagline", "description", "monogram",
                                                        "artwork"};
  require(value.is_object() && value.size() <= kMembers.size(), "invalid_presentation",
          "Unknown game presentation fields");
  for (const auto& [key, member] : value.items())
    require(std::find(kMembers.begin(), kMembers.end(), key) != kMembers.end(),
            "invalid_presentation", "Unknown game presentation field");
}

}  // namespace

GamePresentation GamePresentation::parse(std::string_view display_name, const json& value) {
  check_text(display_name, 200, LineBreaks::refused);
  require(!display_name.empty(), "invalid_presentation", "Game display name is empty");
  GamePresentation presentation;
  presentation.display_name = display_name;
  presentation.monogram = first_character(display_name);
  if (value.is_null()) return presentation;
  require_known_members(value);
  if (const json* tagline = find_member(value, "tagline"))
    presentation.tagline = text(*tagline, 200, LineBreaks::refused);
  if (const json* description = find_member(value, "description"))
    presentation.description = text(*description, 4096, LineBreaks::allowed);
  if (const json* monogram = find_member(value, "monogram")) {
    presentation.monogram = text(*monogram, 16, LineBreaks::refused);
    const auto characters = count_characters(presentation.monogram);
    require(characters >= 1 && characters <= 4, "invalid_presentation",
            "Game monogram must contain one to four characters");
  }
  if (const json* artwork = find_member(value, "artwork"))
    presentation.artwork = read_artwork(*artwork);
  return presentation;
}

json GamePresentation::summary() const {
  json picture;
  if (artwork)
    picture = {{"format", kBitmapFormat},
               {"width", artwork->width},
               {"height", artwork->height},
               {"alternative_text", artwork->alternative_text}};
  return {{"display_name", display_name},
          {"tagline", tagline},
          {"description", description},
          {"monogram", monogram},
          {"artwork", std::move(picture)}};
}

void validate_presentation_bitmap(std::string_view bytes, unsigned width, unsigned height) {
  require(is_artwork_side(width) && is_artwork_side(height) && bytes.size() >= kBitmapHeaderBytes &&
              bytes.size() <= kMaxArtworkBytes,
          "invalid_presentation", "Game artwork exceeds its 128-pixel bitmap bound");
  const std::uint64_t pixel_bytes = bitmap_row_bytes(width) * height;
  // The image size may be left open, and the resolution behind it may be anything.
  const std::uint64_t image_size = little_endian(bytes, 34, 4);
  require(bytes.starts_with("BM") && bytes.size() == kBitmapHeaderBytes + pixel_bytes &&
              (image_size == 0 || image_size == pixel_bytes) &&
              has_fields(bytes, {{2, 4, bytes.size()},
                                 {6, 4, 0},
                                 {10, 4, kBitmapHeaderBytes},
                                 {14, 4, kBitmapInformationBytes},
                                 {kBitmapWidthOffset, 4, width},
                                 {kBitmapHeightOffset, 4, height},
                                 {26, 2, 1},
                                 {28, 2, 24},
                                 {30, 4, 0},
                                 {46, 4, 0},
                                 {50, 4, 0}}),
          "invalid_presentation", "Game artwork must be an exact uncompressed RGB24 BMP");
}

bool has_control_characters(std::string_view text, LineBreaks line_breaks) {
  constexpr std::string_view kBreaks = "\t\n\r";
  const auto is_c1 = [](unsigned char byte) { return byte >= 0x80 && byte <= 0x9f; };
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const bool is_break = kBreaks.find(text[at]) != std::string_view::npos;
    if (byte == 0x7f || (byte < 0x20 && !(is_break && line_breaks == LineBreaks::allowed)))
      return true;
    if (byte == 0xc2 && at + 1 < text.size() && is_c1(static_cast<unsigned char>(text[at + 1])))
      return true;
  }
  return false;
}

}  // namespace tavro
