#include "platform/files/torn_write.h"

#include <nlohmann/json.hpp>

#include <string>

#include "domain/error.h"
#include "domain/identifier.h"

namespace tavro::torn_write {

bool is_temporary_name(std::string_view name, std::string_view destination) {
  return !nonce_between(name, destination, ".tmp").empty();
}

std::optional<json> parse_unless_torn(std::string_view bytes, std::size_t max_bytes) {
  try {
    return parse_json(bytes, max_bytes);
  } catch (const Error& error) {
    if (error.code != "invalid_json") throw;
    return std::nullopt;
  }
}

bool is_cut_short(std::string_view bytes) {
  // Only the library's own reader says where a text is wrong. What it accepts, the strict one
  // refused for its content: that is no torn write.
  try {
    [[maybe_unused]] const json accepted = json::parse(bytes);
    return false;
  } catch (const json::parse_error& error) {
    return error.byte > bytes.size();
  } catch (const json::exception&) {
    return false;
  }
}

bool agrees_with_start(std::string_view bytes, std::string_view start) {
  return bytes.starts_with(start) || start.starts_with(bytes);
}

bool agrees_with_member(std::string_view bytes, std::string_view key, const json& value) {
  const std::string name = json(key).dump() + ':';
  const std::size_t place = bytes.find(name);
  if (place == std::string_view::npos) return true;
  return agrees_with_start(bytes.substr(place + name.size()), value.dump() + ',');
}

}  // namespace tavro::torn_write
