#include "maintenance/maintenance_handoff.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/shortcut_ledger.h"
#include "maintenance/maintenance_control.h"
#include "platform/process/child_process.h"
#include "setup/native_install.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds window_limit{5000};

json view_of(const json& phase, json problem, json result) {
  return {{"phase", phase},
          {"cancellable", false},
          {"completed_bytes", 0},
          {"total_bytes", 0},
          {"owned_path", ""},
          {"problem", std::move(problem)},
          {"result", std::move(result)}};
}

json failure_view(std::string_view code, std::string_view message) {
  return view_of("failed", {{"code", code}, {"message", message}}, nullptr);
}

/// What the view becomes with the end of the work.
json run(const std::function<json()>& work) {
  try {
    auto result = work();
    const auto phase = result.value("phase", "succeeded");
    return view_of(phase, nullptr, std::move(result));
  } catch (const Error& error) {
    return failure_view(error.code, error.what());
  } catch (const std::exception& error) {
    return failure_view("maintenance_failed", error.what());
  }
}

}  // namespace

struct MaintenanceHandoff::State {
  /// The wakeup runs without the mutex, so that it may ask for the view.
  void publish(json next);

  mutable std::mutex mutex;
  /// Guarded by the mutex, as are the wakeup and the helper.
  json view;
  std::function<void()> wakeup;
  std::unique_ptr<ChildProcess> helper;
  std::atomic<bool> cancel_requested{false};
  std::thread worker;
};

void MaintenanceHandoff::State::publish(json next) {
  std::function<void()> woken;
  {
    const std::lock_guard lock(mutex);
    view = std::move(next);
    woken = wakeup;
  }
  if (woken) woken();
}

MaintenanceHandoff::MaintenanceHandoff() : state_(std::make_unique<State>()) {}

MaintenanceHandoff::~MaintenanceHandoff() {
  set_wakeup({});
  cancel();
  join();
}

json MaintenanceHandoff::view() const {
  const std::lock_guard lock(state_->mutex);
  return state_->view;
}

void MaintenanceHandoff::set_wakeup(std::function<void()> wakeup) {
  const std::lock_guard lock(state_->mutex);
  // The former one is destroyed outside the lock: what it holds may ask for the view.
  state_->wakeup.swap(wakeup);
}

void MaintenanceHandoff::cancel() noexcept { state_->cancel_requested = true; }

void MaintenanceHandoff::join() {
  if (state_->worker.joinable()) state_->worker.join();
}

void MaintenanceHandoff::begin(std::function<json()> work) {
  join();
  auto& state = *state_;
  state.cancel_requested = false;
  state.publish(view_of("starting", nullptr, nullptr));
  try {
    state.worker = std::thread([&state, work = std::move(work)] { state.publish(run(work)); });
  } catch (const std::exception& error) {
    // The system refuses a thread.
    state.publish(failure_view("maintenance_failed", error.what()));
  }
}

void MaintenanceHandoff::start(const fs::path& root, std::string build_id) {
  begin([&state = *state_, root, build_id = std::move(build_id)]() -> json {
    auto helper = prepare_gui_maintenance(root, build_id, {})
                      ->launch_gui({"--data-dir", path_utf8(root)}, window_limit);
    const std::lock_guard lock(state.mutex);
    state.helper = std::move(helper);
    return {{"phase", "ready"}};
  });
}

void MaintenanceHandoff::create_shortcut(const fs::path& root, std::string game,
                                         const fs::path& path, std::string name) {
  begin([root, game = std::move(game), path, name = std::move(name)]() -> json {
    return {{"created", path_utf8(NativeInstaller::create_shortcut(root, game, path, name))}};
  });
}

void MaintenanceHandoff::remove_shortcuts(const fs::path& root) {
  begin([root]() -> json {
    const auto removal = NativeInstaller::remove_shortcuts(root);
    return {{"removed", removal.removed.size()}, {"changed", removal.changed.size()}};
  });
}

}  // namespace tavro
