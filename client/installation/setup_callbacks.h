#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace tavro {

/// What a front end offers to a setup run. Either may be empty; both are called on the thread that
/// runs the command.
struct NativeSetupCallbacks {
  /// Reports a phase ("verifying", "installing", "removing") and its bytes.
  std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)> progress;
  /// True asks the engine to stop at its next safe boundary.
  std::function<bool()> cancelled;
};

}  // namespace tavro
