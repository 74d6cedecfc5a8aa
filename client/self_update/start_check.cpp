#include "self_update/start_check.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <thread>

#include "domain/error.h"
#include "domain/product_name.h"
#include "platform/process/child_process.h"
#include "self_update/held_signals.h"
#include "self_update/update_notice.h"

namespace tavro {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds check_period{20};
constexpr milliseconds check_grace{250};
constexpr std::chrono::seconds silence{1};

/// Says once, after a second, what the user waits for.
class Notice {
 public:
  explicit Notice(milliseconds limit) : limit_(limit) {}

  void waited(Clock::duration time) {
    if (said_ || time < silence) return;
    said_ = true;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit_).count();
    tell_about_update(
        branded("A Tavro update is being tested before it is used; this takes at most ") +
        std::to_string(seconds) + " seconds.");
  }

 private:
  milliseconds limit_;
  bool said_ = false;
};

/// The status with which the image ended, or nothing when it had to be stopped.
std::optional<int> run_image(ChildProcess& child, milliseconds limit) {
  const auto begin = Clock::now();
  Notice notice(limit);
  for (;;) {
    const auto status = child.poll();
    if (status) return status;
    const auto time = Clock::now() - begin;
    if (time >= limit || HeldSignals::requested()) break;
    notice.waited(time);
    std::this_thread::sleep_for(check_period);
  }
  child.terminate(check_grace);
  return std::nullopt;
}

/// Whether what ended the image was meant for this process too, where it may still be on its way.
bool was_stopped(std::optional<int> status) {
  constexpr int killed = 128;
  const bool by_signal = status && std::ranges::any_of(HeldSignals::stops, [&](int signal) {
                           return *status == killed + signal;
                         });
  const auto deadline = Clock::now() + check_grace;
  while (by_signal && !HeldSignals::requested() && Clock::now() < deadline)
    std::this_thread::sleep_for(check_period);
  return HeldSignals::requested();
}

}  // namespace

StartVerdict check_start(const std::filesystem::path& image, milliseconds limit,
                         const HeldSignals&) {
  try {
    ChildProcess child(image, {}, image.parent_path(), {{bootstrap_start_check_environment, "1"}},
                       ChildStreams::output_to_errors, ChildEnvironment::whole, {},
                       ChildGroup::inherited, ChildControl::none);
    const auto status = run_image(child, limit);
    if (status == 0) return StartVerdict::passed;
    return was_stopped(status) ? StartVerdict::stopped : StartVerdict::failed;
  } catch (const Error& error) {
    // An image that cannot be run is told from a process that cannot be made by the help it offers.
    const bool made = error.code != "process_start" || !error.next_commands.empty();
    return made ? StartVerdict::failed : StartVerdict::unmade;
  } catch (const std::exception&) {
    return StartVerdict::unmade;
  }
}

}  // namespace tavro
