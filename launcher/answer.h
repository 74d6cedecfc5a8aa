#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "domain/json.h"

namespace tavro::program {

/// What a command came to, for both kinds of readers.
struct Answer {
  /// An object, which is told as one line with `schema_version` 1 in it.
  json document;
  /// Sentences or a table, with line ends between the lines and none behind the last.
  std::string text;
  int status = 0;
};

}  // namespace tavro::program
