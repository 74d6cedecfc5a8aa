#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace tavro {

/// The headers of an uncompressed BMP file without a palette, in bytes; the rows follow.
inline constexpr std::size_t kBitmapHeaderBytes = 54;
/// The second of the two headers.
inline constexpr unsigned kBitmapInformationBytes = 40;
/// Where the sides stand in it, in pixels, 4 bytes each.
inline constexpr std::size_t kBitmapWidthOffset = 18;
inline constexpr std::size_t kBitmapHeightOffset = 22;

/// A row of 24-bit pixels is filled up to 4 bytes.
constexpr std::uint64_t bitmap_row_bytes(std::uint32_t width) {
  return (std::uint64_t{width} * 3 + 3) / 4 * 4;
}

/// The number of `size` bytes, at most 8, at `offset`. All of them must be there.
constexpr std::uint64_t little_endian(std::string_view bytes, std::size_t offset,
                                      std::size_t size) {
  std::uint64_t number = 0;
  while (size-- > 0) number = number << 8 | static_cast<unsigned char>(bytes[offset + size]);
  return number;
}

struct BitmapField {
  std::size_t offset;
  std::size_t size;
  std::uint64_t value;
};

/// Whether each field of a file that has its whole header holds this value.
constexpr bool has_fields(std::string_view bytes, std::initializer_list<BitmapField> fields) {
  return std::all_of(fields.begin(), fields.end(), [&](const BitmapField& field) {
    return little_endian(bytes, field.offset, field.size) == field.value;
  });
}

}  // namespace tavro
