#pragma once

#include <optional>
#include <string>
#include <vector>

#include "console/cli_entry.h"
#include "launcher/launcher_store.h"

namespace tavro {

// What the bootstrap says itself, on standard output, to a console's line. Each returns the exit
// status.

/// Whether the line asks for JSON. Never fails: what is wrong with the line is found later.
bool asks_for_json(const std::vector<std::string>& arguments) noexcept;

/// Answers a line that asks for help, which needs no data folder; nothing for another line, one
/// without words or one that is malformed.
std::optional<int> answer_help(const std::vector<std::string>& arguments);
int print_help(bool as_json);

/// Whether this is the line by which a user asks what state the launcher is in.
bool asks_for_status(const CliEntry& line);
/// Answers that line where no launcher can.
int print_status(const LauncherStore& store, bool as_json);

}  // namespace tavro
