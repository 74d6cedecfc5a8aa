#include "self_update/held_signals.h"

#include <algorithm>
#include <cstddef>

namespace tavro {
namespace {

constexpr std::size_t most_signals = 65;

std::array<volatile std::sig_atomic_t, most_signals> came;

void note(int signal) { came[static_cast<std::size_t>(signal)] = 1; }

void listen(int signal, struct sigaction& former) {
  struct sigaction noting {};
  noting.sa_handler = note;
  noting.sa_flags = SA_RESTART;
  (void)sigemptyset(&noting.sa_mask);
  came[static_cast<std::size_t>(signal)] = 0;
  (void)sigaction(signal, nullptr, &former);
  if (former.sa_handler != SIG_IGN) (void)sigaction(signal, &noting, nullptr);
}

bool has_come(int signal) { return came[static_cast<std::size_t>(signal)] != 0; }

}  // namespace

HeldSignals::HeldSignals() noexcept {
  for (std::size_t i = 0; i < stops.size(); ++i) listen(stops[i], former_[i]);
  listen(SIGPIPE, former_pipe_);
}

HeldSignals::~HeldSignals() {
  (void)sigaction(SIGPIPE, &former_pipe_, nullptr);
  for (std::size_t i = 0; i < stops.size(); ++i) (void)sigaction(stops[i], &former_[i], nullptr);
  for (const int signal : stops)
    if (has_come(signal)) (void)std::raise(signal);
}

bool HeldSignals::requested() noexcept { return std::any_of(stops.begin(), stops.end(), has_come); }

}  // namespace tavro
