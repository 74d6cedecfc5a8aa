#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// True for an option that takes the next word of the line as its value, whatever the command.
bool cli_option_has_value(std::string_view word);

/// Proves that the words name one known command with just what it takes. Throws as
/// `parse_cli_entry`.
void validate_cli_command(const std::vector<std::string>& args);

}  // namespace tavro
