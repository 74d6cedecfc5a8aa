#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace tavro::program {

/// A line of standard input that nobody else is to see: a terminal does not show it, and its memory
/// is wiped afterwards.
class SecretInput {
 public:
  /// Reads up to a line end or the end of the input. `stop` is asked meanwhile, and may be empty.
  /// Throws `usage` for more than `most` bytes, `file_read`, `cancelled`.
  SecretInput(std::size_t most, const std::function<bool()>& stop);
  SecretInput(const SecretInput&) = delete;
  SecretInput& operator=(const SecretInput&) = delete;
  ~SecretInput();

  std::string_view text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace tavro::program
