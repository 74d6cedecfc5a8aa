#include "setup/native_setup.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <random>
#include <set>

#include "support/installation.h"

namespace tavro::native_setup_test {

using Kind = SetupCommandKind;

struct FrontEnd {
  explicit FrontEnd(Installation& at, std::function<void()> on_wakeup = nullptr)
      : installation(at), setup(at.package.seal) {
    setup.set_wakeup([this, act = std::move(on_wakeup)] {
      if (act) act();
      ++woken, woken.notify_all();
    });
  }
  void start(Kind kind) {
    SetupCommand command;
    command.kind = kind;
    command.package = installation.package.folder;
    command.data_root = installation.paths.root;
    setup.start(command);
  }
  /// The view once enough wakeups have come, or the run is over.
  NativeSetup::View end(int wakeups = INT_MAX) {
    for (int seen = woken; seen < wakeups && setup.view().running; seen = woken) woken.wait(seen);
    return setup.view();
  }
  NativeSetup::View run(Kind kind) { return start(kind), end(); }

  Installation& installation;
  std::atomic<int> woken{0};
  NativeSetup setup;  // last, since it wakes until its end
};

TEST(NativeSetup, ShowsEachRunInAViewOfItsOwn) {
  Installation at;
  std::mutex gate;
  std::unique_lock closed(gate);
  std::atomic<bool> fails{false};
  FrontEnd front(at, [&] {
    const std::lock_guard pass(gate);
    if (fails.exchange(false)) throw std::runtime_error("no window");
  });
  front.start(Kind::install);
  EXPECT_FAILURE(front.start(Kind::status), "busy: Setup is already running");
  EXPECT_TRUE(front.setup.view().running);
  front.setup.cancel();
  closed.unlock();
  const auto cancelled = front.end();
  EXPECT_EQ(cancelled.error_code, "cancelled");
  EXPECT_EQ(cancelled.error_message, "Setup was cancelled");
  EXPECT_TRUE(cancelled.result.is_null());
  const auto installed = front.run(Kind::install);
  EXPECT_EQ(installed.result.at("replaced").size(), 3);
  EXPECT_EQ(installed.phase + installed.error_code, "installing");
  EXPECT_TRUE(installed.total > 0 && installed.done == installed.total);
  fails = true;
  EXPECT_EQ(front.run(Kind::repair).error_code, "setup_failed");
  const auto status = front.run(Kind::status);
  EXPECT_TRUE(status.phase.empty() && status.error_code.empty() && status.total == 0);
}

TEST(NativeSetup, LeavesTheFolderWholeOrGoneWheneverARunIsStopped) {
  Installation at;
  std::mt19937 random(7);
  std::set<std::string> ends;
  for (int round = 0; round < 40; ++round) {
    {
      FrontEnd front(at);
      front.start(at.status().installed ? Kind::uninstall : Kind::install);
      front.end(static_cast<int>(random() % 120));
      front.setup.cancel();
      if (round % 2 == 0) ends.insert(front.end().error_code);
    }
    EXPECT_FALSE(at.status().incomplete);
    EXPECT_EQ(at.status().installed, std::filesystem::exists(at.paths.root));
  }
  EXPECT_EQ(ends, (std::set<std::string>{"", "cancelled"}));
}

}  // namespace tavro::native_setup_test
