#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "documents/presentation.h"
#include "domain/json.h"

/// What the readers of the distributor's documents share. Members that are missing or of another
/// type leave as exceptions of the JSON library, for the reader's own wrapper.
namespace tavro::service_fields {

/// The code of every document of a distributor that is no such document.
inline constexpr char kInvalid[] = "invalid_service_document";

/// The last second of the year 9999, since 1970.
inline constexpr std::uint64_t kLastMoment = 253402300799;

/// Throws `unsupported_schema` for a newer document, and `invalid_service_document` for another
/// kind.
void require_kind(const json& document, std::string_view kind);

/// A text of `least` to `most` bytes without control characters. Throws `invalid_service_document`.
std::string text(const json& object, const char* key, std::size_t least, std::size_t most,
                 LineBreaks line_breaks);

/// Seconds since 1970, up to `kLastMoment`. Throws `invalid_service_document`.
std::uint64_t moment(const json& object, const char* key);

/// Throws `invalid_service_document` unless the member is true or false.
bool truth(const json& object, const char* key);

/// The array of a member. Throws `size_limit` for more than `most` entries.
const json& list(const json& object, const char* key, std::size_t most);

}  // namespace tavro::service_fields
