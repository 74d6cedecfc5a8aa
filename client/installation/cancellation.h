#pragma once

#include <string_view>

#include "domain/progress.h"
#include "installation/setup_callbacks.h"

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

}  // namespace tavro
