#include "domain/document_sentence.h"

#include <string_view>

namespace tavro {

std::string document_sentence(const Error& error) {
  const std::string_view message = error.what();
  const bool parsers = error.code == "invalid_json" && message.starts_with("[json.exception.");
  return std::string(parsers ? "Not a whole JSON document" : message);
}

}  // namespace tavro
