#include "installation/menu_icon.h"

#include <cstdint>
#include <exception>

#include "domain/input.h"
#include "installation/installed_brand.h"
#include "platform/files/durable_files.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t icon_bytes = 1048576;
constexpr std::size_t header_bytes = 6;
constexpr std::size_t entry_bytes = 16;
constexpr std::string_view png_signature = "\x89PNG\r\n\x1a\n";

/// A little-endian number; the caller has checked that it lies within the bytes.
std::uint32_t number(std::string_view bytes, std::size_t at, int size) {
  std::uint32_t value = 0;
  for (int byte = size - 1; byte >= 0; --byte)
    value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(byte)]);
  return value;
}

fs::path image_of(const fs::path& icon) {
  if (!shortcut_place::is_taken(icon)) return {};
  const std::string png = largest_png(read_file(icon, icon_bytes));
  if (png.empty()) return icon;
  fs::path image = icon;
  image.replace_extension(".png");
  atomic_write(image, png);
  return image;
}

}  // namespace

std::string largest_png(std::string_view icon) {
  std::string_view largest;
  std::uint32_t largest_width = 0;
  if (icon.size() < header_bytes) return {};
  const std::size_t count = number(icon, 4, 2);
  for (std::size_t index = 0; index < count; ++index) {
    const std::size_t at = header_bytes + index * entry_bytes;
    if (icon.size() - header_bytes < (index + 1) * entry_bytes) break;
    const std::size_t size = number(icon, at + 8, 4);
    const std::size_t offset = number(icon, at + 12, 4);
    if (offset > icon.size() || size > icon.size() - offset) continue;
    const std::string_view image = icon.substr(offset, size);
    // A width of 256 does not fit into its byte and stands there as 0.
    const std::uint32_t width = (number(icon, at, 1) + 255) % 256 + 1;
    if (!image.starts_with(png_signature) || width <= largest_width) continue;
    largest = image;
    largest_width = width;
  }
  return std::string(largest);
}

fs::path menu_icon(const fs::path& root) noexcept {
  try {
    return image_of(brand_icon_path(root));
  } catch (const std::exception&) {
    // A menu entry with the usual image is better than none.
    return {};
  }
}

}  // namespace tavro
