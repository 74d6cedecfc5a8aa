#include "launcher_program.h"

#include <iostream>

#include "app/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/native_platform.h"

namespace tavro::example {
namespace {

int answer(const LauncherProgram& program, const std::vector<std::string>& arguments) {
  const std::string first = arguments.empty() ? "" : arguments.front();
  if (first == "--help") {
    std::cout << "Usage: " << program.name << " [--help | --version]\n\n"
              << program.purpose << "\n";
    return 0;
  }
  if (first == "--version") {
    std::cout << program.name << " " << TAVRO_VERSION << "\n";
    return 0;
  }
  require_complete_native_install_image(current_executable_path());
  fail("process_start", program.refusal);
}

}  // namespace

int run_launcher_program(const LauncherProgram& program, int argc, char** argv) {
  return run_reported([&] {
    initialize_client_runtime();
    return answer(program, process_arguments(argc, argv));
  });
}

}  // namespace tavro::example
