#pragma once

#include <string>
#include <vector>

#include "answer.h"
#include "context.h"

namespace tavro::program {

using Handler = Answer (*)(Context&);

/// A command, named by the words of the grammar, and what it does.
struct Command {
  std::vector<std::string> words;
  Handler handler;
  /// It is an operation, and stands in the journal.
  bool journaled = false;
};

/// One for each row of `cli_commands`.
const std::vector<Command>& command_table();

/// Whether the words are those of a command that stands in the journal, with just what it takes.
bool is_journaled(const std::vector<std::string>& args);

/// Reads the words, as the grammar does, into the context and does what they say. Throws as
/// `read_cli_command` and as the handler.
Answer run_command(Context& context, const std::vector<std::string>& args);

}  // namespace tavro::program
