#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// What one command of the launcher's console takes.
struct CliCommand {
  /// The one or two words that name it.
  std::vector<std::string> words;
  std::size_t operands = 0;
  std::set<std::string, std::less<>> flags;
  std::set<std::string, std::less<>> options;
};

/// All commands but `self uninstall` and `self shortcut`, which maintenance answers.
const std::vector<CliCommand>& cli_commands();

/// A line of one of them, sorted.
struct CliLine {
  const CliCommand* command = nullptr;
  std::set<std::string, std::less<>> flags;
  std::map<std::string, std::string, std::less<>> options;
  std::vector<std::string> operands;
};

/// Reads a line of these commands, without global options. Throws as `parse_cli_entry`.
CliLine read_cli_command(const std::vector<std::string>& args);

/// True for an option that takes the next word of the line as its value, whatever the command.
bool cli_option_has_value(std::string_view word);

/// Proves that the words name one known command with just what it takes. Throws as
/// `parse_cli_entry`.
void validate_cli_command(const std::vector<std::string>& args);

}  // namespace tavro
