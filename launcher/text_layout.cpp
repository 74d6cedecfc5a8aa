#include "text_layout.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>

namespace tavro::program {
namespace {

/// Calls `visit` with each character and its bytes; -1 for a byte that is part of none.
template <typename Visit>
void each_character(std::string_view text, const Visit& visit) {
  for (std::size_t at = 0; at < text.size();) {
    utf8proc_int32_t character = -1;
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data() + at);
    const auto left = static_cast<utf8proc_ssize_t>(text.size() - at);
    const auto length = utf8proc_iterate(bytes, left, &character);
    const std::size_t taken = length < 1 ? 1 : static_cast<std::size_t>(length);
    visit(length < 1 ? -1 : character, text.substr(at, taken));
    at += taken;
  }
}

std::size_t columns_of(utf8proc_int32_t character) {
  return character < 0 ? 1 : static_cast<std::size_t>(std::max(0, utf8proc_charwidth(character)));
}

/// Also what turns the direction of writing, and separators that some terminals act on.
bool steers(utf8proc_int32_t character) {
  switch (utf8proc_category(character)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string plain_text(std::string_view text) {
  std::string plain;
  each_character(text, [&](utf8proc_int32_t character, std::string_view bytes) {
    if (character == '\t') bytes = " ";
    const bool stays =
        character == '\t' || character == '\n' || (character >= 0 && !steers(character));
    plain += stays ? bytes : "?";
  });
  return plain;
}

std::size_t display_columns(std::string_view text) {
  std::size_t columns = 0;
  each_character(text, [&](utf8proc_int32_t character, std::string_view) {
    columns += columns_of(character);
  });
  return columns;
}

std::string cut_to_columns(std::string_view text, std::size_t columns) {
  if (display_columns(text) <= columns) return std::string(text);
  if (columns == 0) return {};
  std::string cut;
  std::size_t used = 1;
  bool full = false;
  each_character(text, [&](utf8proc_int32_t character, std::string_view bytes) {
    used += columns_of(character);
    full = full || used > columns;
    if (!full) cut += bytes;
  });
  return cut + "…";
}

std::string byte_text(std::uint64_t bytes) {
  constexpr std::uint64_t unit = 1024;
  constexpr std::array<std::string_view, 6> names{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < unit) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  std::size_t power = 0;
  std::uint64_t below = bytes;
  for (; below >= unit * unit && power + 1 < names.size(); ++power) below /= unit;
  const std::uint64_t tenths = below / unit * 10 + below % unit * 10 / unit;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " " +
         std::string(names[power]);
}

std::string duration_text(std::uint64_t seconds) {
  constexpr std::uint64_t minute = 60;
  constexpr std::uint64_t hour = 3600;
  if (seconds < minute) return std::to_string(seconds) + " s";
  if (seconds < hour)
    return std::to_string(seconds / minute) + " min " + std::to_string(seconds % minute) + " s";
  return std::to_string(seconds / hour) + " h " + std::to_string(seconds % hour / minute) + " min";
}

std::string time_text(std::uint64_t seconds) {
  if (seconds == 0) return {};
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  std::array<char, 64> text{};
  if (::gmtime_r(&time, &parts) == nullptr) return "?";
  const std::size_t length = std::strftime(text.data(), text.size(), "%F %T UTC", &parts);
  return {text.data(), length};
}

std::string count_text(std::uint64_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string table_text(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], display_columns(row[i]));
  }
  std::vector<std::string> lines;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      line += std::string(widths[i] - display_columns(row[i]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    lines.push_back(std::move(line));
  }
  return line_text(lines);
}

std::string line_text(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

}  // namespace tavro::program
