#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace tavro::program {

/// How far a long work has come.
struct ProgressState {
  /// What it is of, such as a game; may be empty.
  std::string label;
  std::string phase;
  std::uint64_t done = 0;
  /// 0 while nobody knows.
  std::uint64_t total = 0;
  /// Bytes per second; 0 while nobody knows.
  double rate = 0;
};

/// The state in at most so many columns: what there is no room for is left out, the least telling
/// first, and words are cut last.
std::string progress_text(const ProgressState& state, std::size_t columns);

/// Where a progress line is drawn.
struct ProgressLook {
  /// Redrawn in place; else lines of their own every few seconds.
  bool in_place = false;
  bool colours = false;
  /// Of the terminal, asked anew for each redraw.
  std::function<std::size_t()> columns;
  std::function<void(std::string_view)> write;
  std::function<std::chrono::steady_clock::time_point()> clock;
};

/// As standard error wants it: in place on a terminal that can, without colours where NO_COLOR says
/// so.
ProgressLook error_stream_look();

/// One line that shows a long work while it lasts.
class ProgressLine {
 public:
  explicit ProgressLine(ProgressLook look);
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;
  /// Clears it.
  ~ProgressLine();

  void set_label(std::string_view label);
  /// To be called as often as there is news; draws at most ten times a second.
  void show(std::string_view phase, std::uint64_t done, std::uint64_t total);
  /// Takes it from the screen, until the next `show`.
  void clear();

 private:
  using Time = std::chrono::steady_clock::time_point;

  void start_phase(std::string_view phase, std::uint64_t done, Time now);
  void measure(std::uint64_t done, Time now);
  void draw(Time now);
  std::string erasure(std::size_t columns) const;

  ProgressLook look_;
  ProgressState state_;
  Time drawn_at_;
  bool ever_drawn_ = false;
  /// Columns of what stands on the screen.
  std::size_t drawn_columns_ = 0;
  Time measured_at_;
  std::uint64_t measured_done_ = 0;
};

}  // namespace tavro::program
