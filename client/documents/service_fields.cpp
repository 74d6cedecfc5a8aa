#include "documents/service_fields.h"

#include "domain/error.h"
#include "domain/json_fields.h"

namespace tavro::service_fields {

void require_kind(const json& document, std::string_view kind) {
  require(has_text(document, "kind", kind), kInvalid,
          [&] { return "This is no document of the kind " + std::string(kind); });
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "The distributor's document has a newer form; update the launcher");
}

std::string text(const json& object, const char* key, std::size_t least, std::size_t most,
                 LineBreaks line_breaks) {
  const std::string& value = text_member(object, key);
  require(value.size() >= least && value.size() <= most, kInvalid,
          [&] { return std::string("A text of the distributor is missing or too long: ") + key; });
  require(!has_control_characters(value, line_breaks), kInvalid, [&] {
    return std::string("A text of the distributor contains control characters: ") + key;
  });
  return value;
}

std::uint64_t moment(const json& object, const char* key) {
  const json& value = object.at(key);
  require(value.is_number_unsigned() && value.get<std::uint64_t>() <= kLastMoment, kInvalid,
          [&] { return std::string("A time of the distributor is out of bounds: ") + key; });
  return value.get<std::uint64_t>();
}

bool truth(const json& object, const char* key) {
  const json& value = object.at(key);
  require(value.is_boolean(), kInvalid, [&] {
    return std::string("A choice of the distributor is neither true nor false: ") + key;
  });
  return value.get<bool>();
}

const json& list(const json& object, const char* key, std::size_t most) {
  const json& value = object.at(key);
  require(value.is_array(), kInvalid,
          [&] { return std::string("A list of the distributor is missing: ") + key; });
  require(value.size() <= most, "size_limit",
          [&] { return std::string("A list of the distributor is too long: ") + key; });
  return value;
}

}  // namespace tavro::service_fields
