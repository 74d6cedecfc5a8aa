#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>
#include <string_view>

namespace tavro {

/// Objects are ordered by the bytes of their keys; integers are signed or unsigned 64-bit.
using json = nlohmann::json;

/// The only way in which text becomes a value. Throws `size_limit`, `depth_limit` (more than 64
/// enclosing containers), `duplicate_key`, `invalid_number` (any floating point number) or
/// `invalid_json` with the parser's words.
json parse_json(std::string_view text, std::size_t max_bytes);

/// The bytes that are signed and hashed: no white space, keys in ascending byte order, strings as
/// `quote` writes them. Throws `invalid_number` for a floating point value.
std::string canonical_json(const json& value);

/// The text between double quotes, with a backslash before each backslash and double quote; nothing
/// else is escaped or checked.
std::string quote(std::string_view text);

/// A metadata version: an integer from 1 up. Throws `invalid_version`.
unsigned long long positive_version(const json& value);

}  // namespace tavro
