#include "installation/cancellation.h"

#include <string>

#include "domain/error.h"

namespace tavro {

void Cancellation::check() const {
  require(!callbacks_->cancelled || !callbacks_->cancelled(), "cancelled", "Setup was cancelled");
}

void Cancellation::report(std::string_view phase, unsigned long long done,
                          unsigned long long total) const {
  if (callbacks_->progress) callbacks_->progress(phase, done, total);
}

Progress Cancellation::progress(std::string_view phase) const {
  return
      [run = *this, phase = std::string(phase)](unsigned long long done, unsigned long long total) {
        run.report(phase, done, total);
        // A run that is stopped says the same wherever it stops.
        run.check();
        return true;
      };
}

}  // namespace tavro
