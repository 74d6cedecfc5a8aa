#include "documents/theme_definition.h"

#include <algorithm>
#include <set>
#include <span>
#include <utility>

#include "documents/bitmap.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using namespace std::string_view_literals;

constexpr std::size_t kNoticeBytes = 262144;
constexpr std::size_t kMaxNameBytes = 100;
constexpr std::size_t kMaxFiles = 12;
constexpr std::int64_t kMinTextSize = 10;
constexpr std::int64_t kMaxTextSize = 48;

constexpr std::string_view kMalformed = "Theme definition is malformed";
constexpr std::string_view kUnsupported = "Unsupported theme schema";

using Extensions = std::span<const std::string_view>;
constexpr std::array kFontExtensions = {".ttf"sv, ".otf"sv};
constexpr std::array kImageExtensions = {".bmp"sv};
constexpr std::array kNoticeExtensions = {".txt"sv};

/// Pixels.
struct ImageBounds {
  std::uint32_t width;
  std::uint32_t height;
};
constexpr ImageBounds kIconBounds = {256, 256};
constexpr ImageBounds kBannerBounds = {2048, 1024};

const json& object(const json& value, std::string_view name) {
  require(value.is_object(), "invalid_theme",
          [&] { return "Theme " + std::string(name) + " must be an object"; });
  return value;
}

bool is_file_name(std::string_view name) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !name.empty() && name.size() <= kMaxNameBytes && name.front() != '.' &&
         name != kThemeDefinition && name.find_first_not_of(kAllowed) == std::string_view::npos;
}

const std::string& file_name(const json& value, Extensions extensions) {
  require(value.is_string(), "invalid_theme", "Theme files are named by text");
  const auto& name = value.get_ref<const std::string&>();
  require(is_file_name(name), "invalid_theme", [&] {
    return "Theme file names are 1 to 100 letters, digits, '.', '_' or '-': " + name;
  });
  const std::string folded = case_folded(name);
  const bool fits = std::any_of(extensions.begin(), extensions.end(),
                                [&](std::string_view end) { return folded.ends_with(end); });
  require(fits, "invalid_theme",
          [&] { return "Theme file has the wrong kind of extension: " + name; });
  return name;
}

const std::string& image_file(const json& image) {
  const json* file = find_member(object(image, "images"), "file");
  require(file != nullptr, "invalid_theme", "Theme image needs a file");
  return file_name(*file, kImageExtensions);
}

std::string read_plain(const fs::path& path, std::size_t max_bytes) {
  std::error_code ignored;
  require(fs::is_regular_file(fs::symlink_status(path, ignored)), "invalid_theme", [&] {
    return "Theme file is missing or not a plain file: " + path_utf8(path.filename());
  });
  return read_file(path, max_bytes);
}

fs::path read_font(const json& value, const ThemeResolver& resolver) {
  fs::path path = resolver(file_name(value, kFontExtensions));
  const std::string font = read_plain(path, kThemeFontBytes);
  const std::string_view form = std::string_view(font).substr(0, 4);
  require(form == "\0\1\0\0"sv || form == "OTTO" || form == "true", "invalid_theme",
          "Theme fonts must be TrueType or OpenType files");
  return path;
}

bool is_exact_bitmap(std::string_view bytes, std::uint32_t width, std::uint32_t height) {
  return has_fields(bytes, {{2, 4, bytes.size()},
                            {10, 4, kBitmapHeaderBytes},
                            {14, 4, kBitmapInformationBytes},
                            {26, 2, 1},
                            {28, 2, 24},
                            {30, 4, 0},
                            {46, 4, 0}}) &&
         bytes.size() == kBitmapHeaderBytes + bitmap_row_bytes(width) * height;
}

ThemeImage read_image(const json& value, const ThemeResolver& resolver, ImageBounds most) {
  ThemeImage image;
  image.path = resolver(image_file(value));
  if (const json* pixel_art = find_member(value, "pixel_art")) {
    require(pixel_art->is_boolean(), "invalid_theme", "Theme pixel_art is true or false");
    image.pixel_art = pixel_art->get<bool>();
  }
  const std::string bytes =
      read_plain(image.path, kBitmapHeaderBytes + bitmap_row_bytes(most.width) * most.height);
  require(bytes.size() >= kBitmapHeaderBytes && bytes.starts_with("BM"), "invalid_theme",
          "Theme images are BMP files");
  image.width = static_cast<std::uint32_t>(little_endian(bytes, kBitmapWidthOffset, 4));
  // Unsigned, so that rows from the top, which a negative height means, are beyond every bound.
  image.height = static_cast<std::uint32_t>(little_endian(bytes, kBitmapHeightOffset, 4));
  require(image.width >= 1 && image.width <= most.width && image.height >= 1 &&
              image.height <= most.height,
          "invalid_theme", [&] {
            return "Theme image is larger than " + std::to_string(most.width) + "×" +
                   std::to_string(most.height) + " pixels";
          });
  require(is_exact_bitmap(bytes, image.width, image.height), "invalid_theme",
          "Theme images must be uncompressed 24-bit BMP files");
  return image;
}

unsigned hex_digit(char digit) {
  const char folded = case_folded(digit);
  if (folded >= '0' && folded <= '9') return static_cast<unsigned>(folded - '0');
  if (folded >= 'a' && folded <= 'f') return static_cast<unsigned>(folded - 'a' + 10);
  fail("invalid_theme", "Theme colours are written #rrggbb");
}

Rgb color(const json& value) {
  const auto* text = value.get_ptr<const std::string*>();
  require(text != nullptr && text->size() == 7 && text->front() == '#', "invalid_theme",
          "Theme colours are written #rrggbb");
  std::uint32_t number = 0;
  for (const char digit : std::string_view(*text).substr(1))
    number = number << 4 | hex_digit(digit);
  return rgb(number);
}

const json& needed_color(const json& colors, std::string_view owner, std::string_view key) {
  const json* found = find_member(colors, key);
  require(found != nullptr, "invalid_theme",
          [&] { return "Theme " + std::string(owner) + " the colour " + std::string(key); });
  return *found;
}

/// A missing member stands for no schema; one of another type makes the definition malformed.
void check_schema(const json& definition) {
  const json* version = find_member(definition, "schema_version");
  require(version == nullptr || version->is_number_integer(), "invalid_theme", kMalformed);
  require(has_integer(definition, "schema_version", 1), "invalid_theme", kUnsupported);
  const json* kind = find_member(definition, "kind");
  require(kind == nullptr || kind->is_string(), "invalid_theme", kMalformed);
  require(has_text(definition, "kind", "tavro-theme"), "invalid_theme", kUnsupported);
}

void read_colors(Theme& theme, const json& colors) {
  object(colors, "colors");
  for (const ThemeColor& needed : kThemeColors)
    theme.*needed.field = color(needed_color(colors, "needs", needed.key));
  const json* hover = find_member(colors, "hover");
  theme.hover = hover != nullptr ? color(*hover) : theme.raised;
  if (const json* button = find_member(colors, "button")) theme.button = color(*button);
}

void read_shape(Theme& theme, const json& definition) {
  if (const json* corners = find_member(definition, "corners")) {
    theme.square = *corners == "square";
    require(theme.square || *corners == "rounded", "invalid_theme",
            "Theme corners are square or rounded");
  }
  if (const json* bevel = find_member(definition, "bevel")) {
    require(bevel->is_boolean(), "invalid_theme", "Theme bevel is true or false");
    theme.bevel = bevel->get<bool>();
  }
}

void read_frame(Theme& theme, const json& frame) {
  object(frame, "frame");
  const auto needed = [&](std::string_view key) -> const json& {
    return needed_color(frame, "frame needs", key);
  };
  const json& outline = needed("outline");
  const json& trim = needed("trim");
  const json& gap = needed("gap");
  const json& rivet = needed("rivet");
  theme.frame = ThemeFrame{color(outline), color(trim), color(gap), color(rivet)};
}

void read_text_sizes(Theme& theme, const json& sizes) {
  object(sizes, "text_sizes");
  const std::pair<const char*, std::int32_t*> fields[] = {{"title", &theme.title_size},
                                                          {"heading", &theme.heading_size},
                                                          {"body", &theme.body_size},
                                                          {"small", &theme.small_size}};
  for (const auto& [key, field] : fields) {
    const json* size = find_member(sizes, key);
    if (size == nullptr) continue;
    const std::int64_t pixels = size->is_number_integer() ? size->get<std::int64_t>() : 0;
    require(pixels >= kMinTextSize && pixels <= kMaxTextSize, "invalid_theme",
            "Theme text sizes are 10 to 48 pixels");
    *field = static_cast<std::int32_t>(pixels);
  }
}

void read_fonts(Theme& theme, const json& fonts, const ThemeResolver& resolver) {
  const std::pair<const char*, fs::path*> fields[] = {
      {"regular", &theme.regular_font}, {"bold", &theme.bold_font}, {"title", &theme.title_font}};
  for (const auto& [key, field] : fields)
    if (const json* font = find_member(fonts, key)) *field = read_font(*font, resolver);
}

void read_images(Theme& theme, const json& images, const ThemeResolver& resolver) {
  if (const json* icon = find_member(images, "icon"))
    theme.icon = read_image(*icon, resolver, kIconBounds);
  if (const json* banner = find_member(images, "banner"))
    theme.banner = read_image(*banner, resolver, kBannerBounds);
}

/// A notice only has to be there, to be plain and to fit.
void check_notices(const json& notices, const ThemeResolver& resolver) {
  for (const json& notice : notices)
    read_plain(resolver(file_name(notice, kNoticeExtensions)), kNoticeBytes);
}

}  // namespace

std::vector<std::string> theme_files(const json& definition) {
  object(definition, "definition");
  std::vector<std::string> names;
  if (const json* fonts = find_member(definition, "fonts"))
    for (const json& font : object(*fonts, "fonts"))
      names.push_back(file_name(font, kFontExtensions));
  if (const json* images = find_member(definition, "images"))
    for (const json& image : object(*images, "images")) names.push_back(image_file(image));
  if (const json* notices = find_member(definition, "notices")) {
    require(notices->is_array(), "invalid_theme", "Theme notices are a list of files");
    for (const json& notice : *notices) names.push_back(file_name(notice, kNoticeExtensions));
  }
  const std::set<std::string_view> distinct(names.begin(), names.end());
  require(distinct.size() == names.size() && names.size() <= kMaxFiles, "invalid_theme",
          "A theme names at most 12 distinct files");
  return names;
}

Theme parse_theme_before_contrasts(const json& definition, const ThemeResolver& resolver) {
  return read_fields("invalid_theme", kMalformed, [&] {
    check_schema(object(definition, "definition"));
    // Every name is proved here, those included that nothing below asks for.
    theme_files(definition);
    Theme theme;
    read_colors(theme, definition.at("colors"));
    read_shape(theme, definition);
    if (const json* frame = find_member(definition, "frame")) read_frame(theme, *frame);
    if (const json* sizes = find_member(definition, "text_sizes")) read_text_sizes(theme, *sizes);
    if (const json* fonts = find_member(definition, "fonts")) read_fonts(theme, *fonts, resolver);
    if (const json* images = find_member(definition, "images"))
      read_images(theme, *images, resolver);
    if (const json* notices = find_member(definition, "notices")) check_notices(*notices, resolver);
    return theme;
  });
}

Theme parse_theme(const json& definition, const ThemeResolver& resolver) {
  Theme theme = parse_theme_before_contrasts(definition, resolver);
  require_contrasts(theme);
  return theme;
}

std::optional<Theme> load_theme(const fs::path& folder) {
  try {
    const fs::path file = folder / kThemeDefinition;
    if (!fs::is_regular_file(fs::symlink_status(file))) return std::nullopt;
    const std::string text = read_file(file, kThemeDefinitionBytes);
    return parse_theme(parse_json(text, kThemeDefinitionBytes),
                       [&](const std::string& name) { return folder / name; });
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace tavro
