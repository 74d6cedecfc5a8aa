#pragma once

#include <string>
#include <string_view>

namespace tavro {

/// Accepts a relative path of 1 to 4096 bytes in ordinary components of 1 to 255 bytes, with `/` as
/// the only separator. `portable` applies to all that becomes a file or folder, and refuses what
/// any supported platform cannot store; without it the rules are those of names in URLs.
/// Looks at the text alone, never at the disk. Throws `unsafe_path`.
void validate_relative_path(std::string_view path, bool portable);

/// True for a component that a platform reserves for a device: "con", "Lpt1.txt" and the like.
/// Looks at the part before the first dot, without regard to case.
bool is_reserved_name(std::string_view component);

/// `A` to `Z` become `a` to `z`, all else stays. Paths with equal forms may be one path on a volume
/// that does not tell cases apart.
constexpr char case_folded(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}
std::string case_folded(std::string_view path);

}  // namespace tavro
