#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavro::program {

/// The text as a terminal may have it, whoever wrote it: bytes that are no UTF-8, and characters
/// that steer a terminal, become "?". Line ends stay, and tabulators become spaces.
std::string plain_text(std::string_view text);

/// How many columns a plain text takes on a terminal: wide characters two, combining ones none.
std::size_t display_columns(std::string_view text);

/// The text, or its beginning with "…" behind it, in at most so many columns.
std::string cut_to_columns(std::string_view text, std::size_t columns);

/// "512 bytes", "1.5 MiB".
std::string byte_text(std::uint64_t bytes);
/// "8 s", "3 min 20 s", "2 h 5 min".
std::string duration_text(std::uint64_t seconds);
/// "2026-11-24 12:00:05 UTC"; empty for 0.
std::string time_text(std::uint64_t seconds_since_1970);
/// "1 file", "3 files".
std::string count_text(std::uint64_t count, const std::string& thing);

/// Rows below each other, each cell as wide as its column needs; the first row is the heading.
std::string table_text(const std::vector<std::vector<std::string>>& rows);

/// Joins lines with line ends.
std::string line_text(const std::vector<std::string>& lines);

}  // namespace tavro::program
