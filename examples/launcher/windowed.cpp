#include "launcher_program.h"

int main(int argc, char** argv) {
  return tavro::example::run_launcher_program(
      {.name = "example-launcher-gui",
       .purpose = "The windowed entry of a launcher: where a real one opens its window.",
       .refusal = "This launcher has no window yet"},
      argc, argv);
}
