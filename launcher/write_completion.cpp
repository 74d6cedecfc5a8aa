// Writes the completions of one shell to standard output: `tavro-completion bash|zsh|fish`. The
// build runs it, so that what is installed fits the commands that are built.

#include "completion.h"
#include "console/console_report.h"
#include "domain/error.h"
#include "domain/input.h"

int main(int argc, char** argv) {
  return tavro::run_reported([&] {
    const auto words = tavro::process_arguments(argc, argv);
    tavro::require(words.size() == 1, "usage", "tavro-completion bash|zsh|fish");
    tavro::write_text(tavro::program::completion_script(words.front()));
    return 0;
  });
}
