#pragma once

#include <string_view>

namespace tavro {

/// Game, build and brand identifiers: 1 to 80 lower-case letters, digits, dots and hyphens, usable
/// as one folder name on every platform. Throws `invalid_identity`, or `unsafe_path` for a name
/// that a platform reserves.
void validate_identifier(std::string_view id);

}  // namespace tavro
