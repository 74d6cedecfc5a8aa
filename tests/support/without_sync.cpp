#include "platform/host/system_calls.h"

namespace tavro {
namespace {

int synced(int) { return 0; }

SystemCalls without_sync() {
  SystemCalls calls = system_calls();
  calls.fsync = synced;
  return calls;
}

// No test cuts the power, so that waiting for the disk would prove nothing. That a sync is asked
// for, and what follows when it fails, shows all the same: both stand above this table.
const SystemCalls calls = without_sync();
const SystemCallScope scope(calls);

}  // namespace
}  // namespace tavro
