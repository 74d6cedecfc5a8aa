#include "progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <utility>
#include <vector>

#include "text_layout.h"

namespace tavro::program {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds redraw_period{100};
constexpr milliseconds plain_period{5000};
constexpr milliseconds rate_period{500};
constexpr std::size_t narrowest_bar = 10;
constexpr std::size_t widest_bar = 30;
constexpr std::size_t columns_unknown = 80;
constexpr double percent = 100;

double portion(const ProgressState& state) {
  return std::min(1.0, static_cast<double>(state.done) / static_cast<double>(state.total));
}

std::string percent_text(const ProgressState& state) {
  const auto hundredths = static_cast<int>(portion(state) * percent);
  const std::string digits = std::to_string(hundredths);
  return std::string(3 - std::min<std::size_t>(3, digits.size()), ' ') + digits + "%";
}

std::string bar(const ProgressState& state, std::size_t columns) {
  const std::size_t cells = columns - 2;
  const auto full = static_cast<std::size_t>(portion(state) * static_cast<double>(cells));
  return "[" + std::string(full, '#') + std::string(cells - full, '-') + "]";
}

std::string heading(const ProgressState& state) {
  std::string text = state.phase;
  if (!text.empty() && text[0] >= 'a' && text[0] <= 'z' && state.label.empty())
    text[0] = static_cast<char>(text[0] - 'a' + 'A');
  return state.label.empty() ? text : state.label + ": " + text;
}

/// What follows the heading and the bar, the most telling first.
std::vector<std::string> details(const ProgressState& state) {
  std::vector<std::string> parts;
  if (state.total != 0) parts.push_back(percent_text(state));
  if (state.total != 0)
    parts.push_back(byte_text(state.done) + " of " + byte_text(state.total));
  else if (state.done != 0)
    parts.push_back(byte_text(state.done));
  if (state.rate < 1) return parts;
  if (state.total > state.done) {
    const double left = static_cast<double>(state.total - state.done) / state.rate;
    constexpr double longest = 100.0 * 24 * 3600;
    parts.push_back(duration_text(static_cast<std::uint64_t>(std::min(left, longest))) + " left");
  }
  parts.push_back(byte_text(static_cast<std::uint64_t>(state.rate)) + "/s");
  return parts;
}

std::string joined(const std::vector<std::string>& parts, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += "  " + parts[i];
  return text;
}

}  // namespace

std::string progress_text(const ProgressState& state, std::size_t columns) {
  const std::string head = heading(state);
  const std::size_t head_columns = display_columns(head);
  const auto parts = details(state);
  for (std::size_t count = parts.size(); count > 0; --count) {
    const std::string tail = joined(parts, count);
    const std::size_t taken = head_columns + tail.size();
    if (taken > columns) continue;
    const std::size_t left = columns - taken;
    if (state.total == 0 || left < narrowest_bar + 2) return head + tail;
    return head + "  " + bar(state, std::min(left - 2, widest_bar)) + tail;
  }
  // Rather a cut name than no number.
  constexpr std::size_t some_of_it = 6;
  const std::string number = parts.empty() ? std::string() : joined(parts, 1);
  if (columns >= number.size() + some_of_it)
    return cut_to_columns(head, columns - number.size()) + number;
  return cut_to_columns(head, columns);
}

ProgressLook error_stream_look() {
  const auto given = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string_view(value == nullptr ? "" : value);
  };
  ProgressLook look;
  look.in_place = ::isatty(STDERR_FILENO) == 1 && given("TERM") != "dumb";
  look.colours = look.in_place && given("NO_COLOR").empty();
  look.columns = [] {
    struct winsize size {};
    const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return known ? std::size_t{size.ws_col} : columns_unknown;
  };
  look.write = [](std::string_view text) { std::cerr << text << std::flush; };
  look.clock = [] { return std::chrono::steady_clock::now(); };
  return look;
}

ProgressLine::ProgressLine(ProgressLook look) : look_(std::move(look)) {}

ProgressLine::~ProgressLine() {
  try {
    clear();
  } catch (const std::exception&) {
    // A screen that is gone needs no clearing.
  }
}

void ProgressLine::set_label(std::string_view label) { state_.label = plain_text(label); }

void ProgressLine::start_phase(std::string_view phase, std::uint64_t done, Time now) {
  state_.phase = plain_text(phase);
  state_.rate = 0;
  measured_at_ = now;
  measured_done_ = done;
}

/// A mean that forgets: the newest half second counts a third.
void ProgressLine::measure(std::uint64_t done, Time now) {
  if (done < measured_done_) start_phase(state_.phase, done, now);
  const auto passed = now - measured_at_;
  if (passed < rate_period) return;
  const double seconds = std::chrono::duration<double>(passed).count();
  const double latest = static_cast<double>(done - measured_done_) / seconds;
  constexpr double weight = 1.0 / 3;
  state_.rate = state_.rate == 0 ? latest : state_.rate + weight * (latest - state_.rate);
  measured_at_ = now;
  measured_done_ = done;
}

void ProgressLine::show(std::string_view phase, std::uint64_t done, std::uint64_t total) {
  const Time now = look_.clock();
  const bool new_phase = !ever_drawn_ || plain_text(phase) != state_.phase;
  if (new_phase) start_phase(phase, done, now);
  measure(done, now);
  state_.done = done;
  state_.total = total;
  const milliseconds period = look_.in_place ? redraw_period : plain_period;
  const bool due = !ever_drawn_ || now - drawn_at_ >= period;
  // In place every new phase would do for more than ten redraws a second.
  if (due || (new_phase && !look_.in_place)) draw(now);
}

void ProgressLine::draw(Time now) {
  ever_drawn_ = true;
  drawn_at_ = now;
  if (!look_.in_place) {
    look_.write(progress_text({state_.label, state_.phase, state_.done, state_.total, state_.rate},
                              columns_unknown) +
                "\n");
    return;
  }
  const std::size_t columns = std::max<std::size_t>(look_.columns(), 2);
  // The last column stays free: a terminal would go to the next line.
  const std::string text = progress_text(state_, columns - 1);
  const std::string shown = look_.colours ? "\x1b[36m" + text + "\x1b[0m" : text;
  look_.write(erasure(columns) + shown);
  drawn_columns_ = display_columns(text);
}

/// A window that became narrower has folded what was drawn into several lines.
std::string ProgressLine::erasure(std::size_t columns) const {
  if (drawn_columns_ == 0) return "\r";
  const std::size_t lines_above = (drawn_columns_ - 1) / columns;
  const std::string up = lines_above == 0 ? "" : "\x1b[" + std::to_string(lines_above) + "A";
  return "\r" + up + "\x1b[J";
}

void ProgressLine::clear() {
  if (drawn_columns_ == 0) return;
  look_.write(erasure(std::max<std::size_t>(look_.columns(), 2)));
  drawn_columns_ = 0;
  ever_drawn_ = false;
}

}  // namespace tavro::program
