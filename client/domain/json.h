#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

namespace tavro {

/// Objects are ordered by the bytes of their keys; integers are signed or unsigned 64-bit.
using json = nlohmann::json;

/// The only way in which text becomes a value. Throws `size_limit`, `depth_limit` (more than 64
/// enclosing containers), `duplicate_key`, `invalid_number` (any floating point number) or
/// `invalid_json` with the parser's words, also for anything but white space behind the value. A
/// byte-order mark in front is passed over. Time and memory are linear in the text.
json parse_json(std::string_view text, std::size_t max_bytes);

/// The bytes that are signed and hashed: no white space, keys in ascending byte order, strings as
/// `quote` writes them. Throws `invalid_number` for a floating point value.
std::string canonical_json(const json& value);

/// The text between double quotes, with a backslash before each backslash and double quote; nothing
/// else is escaped or checked.
std::string quote(std::string_view text);

/// A metadata version: an integer from 1 up. Throws `invalid_version`.
unsigned long long positive_version(const json& value);

/// True for an integer of exactly this value; false for every other type, 1.0 included.
bool is_integer(const json& value, unsigned long long expected);

/// True for an object that has `key` as an integer of exactly this value. Never throws.
bool has_integer(const json& object, std::string_view key, unsigned long long expected);

/// True for an object that has `key` as exactly this text. Never throws.
bool has_text(const json& object, std::string_view key, std::string_view expected);

/// True for an object of exactly these members. Never throws.
bool has_exactly(const json& object, std::initializer_list<std::string_view> keys);

/// The member, or null where there is none; a value that is no object has none. Never throws.
const json* find_member(const json& object, std::string_view key);

}  // namespace tavro
