#pragma once

#include <nlohmann/json.hpp>

#include <string_view>
#include <utility>

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

}  // namespace tavro
