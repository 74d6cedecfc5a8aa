#pragma once

#include <curl/curl.h>

#include <filesystem>

namespace tavro {

/// Lets a request trust the certificates of the bundle alone, or with an empty path those of the
/// operating system, and a server only by the names that its certificate lists: not by the common
/// name, which nobody who issues certificates answers for. Inside this floor only. Throws
/// `ca_bundle`, `transport`, and as `read_file`.
void set_trust(CURL* easy, const std::filesystem::path& ca_bundle);

}  // namespace tavro
