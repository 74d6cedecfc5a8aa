#include "domain/error.h"

namespace tavro {

Error::Error(std::string error_code, const std::string& message, std::vector<std::string> commands)
    : std::runtime_error(message),
      code(std::move(error_code)),
      next_commands(std::move(commands)) {}

void fail(std::string_view code, std::string_view message, NextCommands next_commands) {
  throw Error(std::string(code), std::string(message),
              {next_commands.begin(), next_commands.end()});
}

}  // namespace tavro
