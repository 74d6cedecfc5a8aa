#include "console/console_report.h"
#include "domain/crypto.h"
#include "domain/input.h"
#include "platform/process/interrupt.h"
#include "publisher/command.h"

int main(int argc, char** argv) {
  return tavro::run_reported([&] {
    tavro::initialize_client_runtime();
    const tavro::ConsoleInterrupt interrupt(false);
    return tavro::run_publish(tavro::process_arguments(argc, argv),
                              [&] { return interrupt.requested(); });
  });
}
