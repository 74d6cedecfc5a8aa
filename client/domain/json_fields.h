#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/json.h"

namespace tavro {

/// Runs a document's reader and turns each exception of the JSON library (a missing member, a
/// member of the wrong type) into an `Error` of this code and message. Every other exception
/// passes. For sources only: it brings in the whole JSON header.
template <typename Reader>
auto read_fields(std::string_view code, std::string_view message, Reader&& reader) {
  try {
    return std::forward<Reader>(reader)();
  } catch (const nlohmann::json::exception&) {
    fail(code, message);
  }
}

/// The text of a member; without one the library's own exception.
inline const std::string& text_member(const json& object, const char* key) {
  return object.at(key).get_ref<const std::string&>();
}

/// `is_lower_hex` of a text; false for every other value.
inline bool is_lower_hex_text(const json& value, std::size_t length) {
  return value.is_string() && is_lower_hex(value.get_ref<const std::string&>(), length);
}

}  // namespace tavro
