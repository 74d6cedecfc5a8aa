#include "launcher_program.h"

int main(int argc, char** argv) {
  return tavro::example::run_launcher_program(
      {.name = "example-launcher",
       .purpose = "The console of a launcher: the smallest one that a bootstrap can start.",
       .refusal = "This launcher has no console commands yet"},
      argc, argv);
}
