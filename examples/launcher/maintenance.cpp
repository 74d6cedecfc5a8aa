#include "launcher_program.h"

int main(int argc, char** argv) {
  return tavro::example::run_launcher_program(
      {.name = "example-launcher-maintenance",
       .purpose = "The helper that removes a client or its shortcuts while the client is closed.",
       .refusal = "This launcher's helper has no maintenance jobs yet"},
      argc, argv);
}
