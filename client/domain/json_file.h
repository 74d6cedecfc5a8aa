#pragma once

#include <cstddef>
#include <filesystem>

#include "domain/json.h"

namespace tavro {

/// The JSON document of the client's own that a file of at most `max_bytes` bytes holds. Throws
/// what `read_file` and `parse_json` throw, with the same codes; the message of each names the
/// file, and none has the words of a library.
json read_json_file(const std::filesystem::path& path, std::size_t max_bytes);

}  // namespace tavro
