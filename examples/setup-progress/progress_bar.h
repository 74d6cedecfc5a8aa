#pragma once

#include "setup/native_setup.h"

namespace example {

/// One line on standard error that shows how far a run is. Without a terminal there it shows
/// nothing, so that a log stays readable.
class ProgressBar {
 public:
  ProgressBar();
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void show(const tavro::NativeSetup::View& view);

 private:
  bool terminal_;
  int frame_ = 0;
};

}  // namespace example
