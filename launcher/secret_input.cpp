#include "secret_input.h"

#include <openssl/crypto.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>

#include "domain/error.h"
#include "domain/input.h"

namespace tavro::program {
namespace {

constexpr int asking_period_ms = 100;

/// A terminal that does not show what is typed, for as long as the object lives.
class HiddenEcho {
 public:
  HiddenEcho() {
    if (::tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios hidden = before_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    is_hidden_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden) == 0;
    require(is_hidden_, "file_read", "The terminal cannot hide what is typed; use a pipe");
    std::cerr << "Access code: " << std::flush;
  }
  HiddenEcho(const HiddenEcho&) = delete;
  HiddenEcho& operator=(const HiddenEcho&) = delete;
  ~HiddenEcho() {
    if (!is_hidden_) return;
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    std::cerr << std::endl;
  }

 private:
  termios before_{};
  bool is_hidden_ = false;
};

/// Waits for bytes or the end of the input.
void wait_for_input(const std::function<bool()>& stop) {
  for (;;) {
    require(!stop || !stop(), "cancelled", "Cancelled; nothing was opened");
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int ready = ::poll(&input, 1, asking_period_ms);
    if (ready > 0) return;
    require(ready == 0 || errno == EINTR, "file_read", "Cannot read standard input");
  }
}

}  // namespace

SecretInput::SecretInput(std::size_t most, const std::function<bool()>& stop) {
  // Never moved to other memory, so that all of it is wiped.
  text_.reserve(most + 1);
  const HiddenEcho echo;
  for (char byte = 0;;) {
    wait_for_input(stop);
    const ssize_t count = read_some(STDIN_FILENO, &byte, 1);
    require(count >= 0, "file_read", "Cannot read standard input");
    if (count == 0 || byte == '\n') return;
    require(text_.size() < most, "usage",
            "An access code has 1 to " + std::to_string(most) + " bytes");
    text_ += byte;
  }
}

SecretInput::~SecretInput() { OPENSSL_cleanse(text_.data(), text_.size()); }

}  // namespace tavro::program
