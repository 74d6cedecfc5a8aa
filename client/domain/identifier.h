#pragma once

#include <string_view>

namespace tavro {

/// Game, build and brand identifiers: 1 to 80 lower-case letters, digits, dots and hyphens, usable
/// as one folder name on every platform. Throws `invalid_identity`, or `unsafe_path` for a name
/// that a platform reserves.
void validate_identifier(std::string_view id);

/// The 32 lower-case hexadecimal characters that stand between `prefix` and a dot, and `suffix`,
/// with nothing else in the name; empty if it is not so.
std::string_view nonce_between(std::string_view name, std::string_view prefix,
                               std::string_view suffix);

}  // namespace tavro
