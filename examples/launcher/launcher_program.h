#pragma once

#include <string_view>

namespace tavro::example {

/// What tells the programs of this launcher apart.
struct LauncherProgram {
  std::string_view name;
  /// One line for the help text.
  std::string_view purpose;
  /// The whole sentence for what is asked and cannot be done.
  std::string_view refusal;
};

/// The life of one program, from its arguments to its exit status. It answers --help and --version,
/// and never runs from an unfinished installation or package.
int run_launcher_program(const LauncherProgram& program, int argc, char** argv);

}  // namespace tavro::example
