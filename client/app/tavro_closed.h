#pragma once

#include <chrono>
#include <string_view>

#include "app/data_folder.h"
#include "app/setup_callbacks.h"
#include "domain/progress.h"
#include "platform/native_lock.h"

namespace tavro {

/// The callbacks of one setup run, as the engine polls them. Borrows them: they outlive it and
/// every progress that it hands out.
class Cancellation {
 public:
  explicit Cancellation(const NativeSetupCallbacks& callbacks) : callbacks_(&callbacks) {}

  /// Throws `cancelled` when the front end asks to stop.
  void check() const;
  /// Tells the front end, if it listens.
  void report(std::string_view phase, unsigned long long done, unsigned long long total) const;
  /// For the loops of lower layers: reports under this phase, and throws `cancelled` to stop them.
  Progress progress(std::string_view phase) const;

 private:
  const NativeSetupCallbacks* callbacks_;
};

/// Takes the bootstrap lock, so that nothing new starts from the folder, and proves that nothing
/// started earlier is still alive. Polls every 100 milliseconds until `timeout` has passed; with 0
/// the first busy lock decides. Throws `tavro_running`, `cancelled`, or what the locks throw except
/// `busy`. The caller holds the setup lock.
NativeFileLock wait_for_tavro_closed(const DataPaths& paths, std::chrono::milliseconds timeout,
                                     const Cancellation& cancellation);

}  // namespace tavro
