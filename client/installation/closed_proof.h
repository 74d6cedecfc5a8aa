#pragma once

#include <chrono>

#include "installation/cancellation.h"
#include "installation/data_folder.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// Takes the bootstrap lock, so that nothing new starts from the folder, and proves that nothing
/// started earlier is still alive: no launcher, and no game whatever started it. Polls every 100
/// milliseconds until `timeout` has passed; with 0 the first busy lock decides. Throws
/// `tavro_running`, `cancelled`, or what the locks throw except `busy`. The caller holds the setup
/// lock.
NativeFileLock wait_for_tavro_closed(const DataPaths& paths, std::chrono::milliseconds timeout,
                                     const Cancellation& cancellation);

}  // namespace tavro
