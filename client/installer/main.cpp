#include "console/console_report.h"
#include "console/stop_signals.h"
#include "domain/crypto.h"
#include "domain/input.h"
#include "platform/process/interrupt.h"
#include "setup/setup_console.h"

// An installer without a seal still tells and removes what is installed; it takes no package.
#ifndef TAVRO_INITIAL_PACKAGE_SHA256
#define TAVRO_INITIAL_PACKAGE_SHA256 ""
#endif

int main(int argc, char** argv) {
  return tavro::run_reported([&] {
    tavro::hold_standard_streams();
    tavro::initialize_client_runtime();
    const tavro::ConsoleInterrupt interrupt(false);
    const tavro::StopSignals stop;
    return tavro::run_setup_console(tavro::process_arguments(argc, argv), "tavro-install",
                                    TAVRO_INITIAL_PACKAGE_SHA256,
                                    [&] { return interrupt.requested() || stop.requested(); });
  });
}
