#include "domain/json_file.h"

#include <nlohmann/json.hpp>

#include <string>

#include "domain/error.h"
#include "domain/input.h"

namespace tavro {

json read_json_file(const std::filesystem::path& path, std::size_t max_bytes) {
  const std::string name = path_utf8(path);
  try {
    return parse_json(read_file(path, max_bytes), max_bytes);
  } catch (const Error& error) {
    if (error.code == "invalid_json")
      fail(error.code, name + " is damaged: it is no JSON document");
    const std::string message = error.what();
    if (message.find(name) != message.npos) throw;
    fail(error.code, name + " cannot be used: " + message);
  }
}

}  // namespace tavro
