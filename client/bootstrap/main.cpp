#include <iostream>

#include "app/console_report.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/native_platform.h"

namespace {

constexpr std::string_view usage =
    "Usage: tavro-bootstrap [--help | --version]\n"
    "\n"
    "The stable entry of an installed Tavro: it chooses a verified launcher version and starts "
    "it.\n";

int run_bootstrap(const std::vector<std::string>& arguments) {
  const std::string first = arguments.empty() ? "" : arguments.front();
  if (first == "--help" || first == "--version") {
    std::cout << (first == "--help" ? usage : "tavro-bootstrap " TAVRO_VERSION "\n") << std::flush;
    return 0;
  }
  tavro::require_complete_native_install_image(tavro::current_executable_path());
  tavro::fail("process_start", "This Tavro bootstrap cannot start a launcher yet");
}

}  // namespace

int main(int argc, char** argv) {
  return tavro::run_reported([&] {
    tavro::initialize_client_runtime();
    return run_bootstrap(tavro::process_arguments(argc, argv));
  });
}
