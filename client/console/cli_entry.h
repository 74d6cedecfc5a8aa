#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// One line of the launcher's console, its form proved.
struct CliEntry {
  /// What `--data-dir` names, else the caller's default.
  std::filesystem::path data_dir;
  /// The command without the global options, in the order of the line; a value follows its option.
  std::vector<std::string> args;
  bool json = false;
  /// The line asks for help: `args` was not validated then.
  bool help = false;
  bool data_dir_set = false;
};

/// Reads a line without the program's name: at most 128 arguments of at most 16384 bytes. Checks
/// form only and never looks at the disk. `json_out`, when given, is told of `--json` before
/// anything can fail, so that a failure can be reported in the wanted form.
/// Throws `usage`; `confirmation_required`, `agreement_version` or `crash_consent` where a command
/// lacks the exact words of consent; `unsafe_path` as `path_from_utf8`.
CliEntry parse_cli_entry(const std::vector<std::string>& arguments,
                         const std::filesystem::path& default_data_dir, bool* json_out);

/// Takes the option and its value out of a forwarded line; `fallback` when it is not there. A name
/// that stands as another option's value is not found. Throws `usage` when a value is missing.
std::string cli_option(std::vector<std::string>& args, std::string_view name,
                       const std::string& fallback);

/// Takes the flag out of a forwarded line; true when it was there. Otherwise as `cli_option`.
bool cli_flag(std::vector<std::string>& args, std::string_view name);

/// Every command with its operands and options, for a person; ends in a newline.
std::string cli_help();

}  // namespace tavro
