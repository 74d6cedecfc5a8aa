// The end of a chain of programs, and with "--then PROGRAM" a link of it: a bootstrap that does
// nothing but start the launcher, of the same size and with the same libraries.

#include <unistd.h>

#include <cstring>
#include <ctime>

#include "start/launcher_bootstrap.h"

int main(int argc, char** argv) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  // Never so; it only makes this program as large as the bootstrap.
  if (argc == 0) return tavro::run_launcher_bootstrap({}, "cli", {}, {}, nullptr);
  if (argc > 2 && std::strcmp(argv[1], "--then") == 0) return execv(argv[2], argv + 2);
  return write(STDOUT_FILENO, &now, sizeof now) == sizeof now ? 0 : 1;
}
