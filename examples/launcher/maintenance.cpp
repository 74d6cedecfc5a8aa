// The helper that removes a client while none of its other programs runs.

#include "app/console_report.h"
#include "app/launcher_helper.h"
#include "domain/crypto.h"
#include "domain/error.h"

int main() {
  return tavro::run_reported([] {
    tavro::initialize_client_runtime();
    const auto runtime = tavro::LauncherHelperRuntime::attach(EXAMPLE_BUILD, "maintenance");
    tavro::fail("unsupported",
                "This example's helper removes nothing yet; use tavro-install uninstall");
    return 0;
  });
}
