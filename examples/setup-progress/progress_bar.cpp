#include "progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace example {
namespace {

constexpr int width = 40;
constexpr double megabyte = 1e6;

const char* label(const std::string& phase) {
  if (phase == "verifying") return "Verifying";
  if (phase == "installing") return "Installing";
  if (phase == "removing") return "Removing";
  return "Starting";
}

/// As full as the share says, or with something that moves while no share is known.
std::string bar(const tavro::NativeSetup::View& view, int frame) {
  std::string cells(width, '.');
  if (view.total == 0)
    cells[static_cast<std::size_t>(frame % width)] = '#';
  else
    std::fill_n(cells.begin(), std::min(view.done, view.total) * width / view.total, '#');
  return cells;
}

}  // namespace

ProgressBar::ProgressBar() : terminal_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  if (terminal_) (void)std::fputs("\r\033[K", stderr);
}

void ProgressBar::show(const tavro::NativeSetup::View& view) {
  if (!terminal_) return;
  (void)std::fprintf(stderr, "\r%-10s [%s]", label(view.phase), bar(view, frame_++).c_str());
  // Of a removal only the phase is known.
  if (view.total > 1)
    (void)std::fprintf(stderr, " %5.1f of %.1f MB", static_cast<double>(view.done) / megabyte,
                       static_cast<double>(view.total) / megabyte);
  (void)std::fputs("\033[K", stderr);
}

}  // namespace example
