#include "setup/native_setup.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "domain/error.h"
#include "setup/setup_dispatch.h"

namespace tavro {

struct NativeSetup::State {
  explicit State(std::string package_seal) : seal(std::move(package_seal)) {}

  NativeSetupCallbacks callbacks();
  void run(const SetupCommand& command);
  /// The wakeup never runs under the mutex, so that it may ask for the view.
  template <typename Update>
  void publish(Update&& update);

  const std::string seal;
  mutable std::mutex mutex;
  /// Guarded by the mutex, as is the wakeup.
  View view;
  std::function<void()> wakeup;
  std::atomic<bool> cancel_requested{false};
  std::thread worker;
};

template <typename Update>
void NativeSetup::State::publish(Update&& update) {
  std::function<void()> woken;
  {
    const std::lock_guard lock(mutex);
    update(view);
    woken = wakeup;
  }
  if (woken) woken();
}

NativeSetupCallbacks NativeSetup::State::callbacks() {
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = [this] { return cancel_requested.load(); };
  callbacks.progress = [this](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    publish([&](View& shown) {
      shown.phase = phase;
      shown.done = done;
      shown.total = total;
    });
  };
  return callbacks;
}

void NativeSetup::State::run(const SetupCommand& command) {
  json result;
  std::string code;
  std::string message;
  try {
    result = run_setup_command(command, seal, callbacks());
  } catch (const Error& error) {
    code = error.code;
    message = error.what();
  } catch (const std::exception& error) {
    code = "setup_failed";
    message = error.what();
  }
  publish([&](View& shown) {
    shown.running = false;
    shown.result = std::move(result);
    shown.error_code = std::move(code);
    shown.error_message = std::move(message);
  });
}

NativeSetup::NativeSetup(std::string seal) : state_(std::make_unique<State>(std::move(seal))) {}

NativeSetup::~NativeSetup() {
  cancel();
  if (state_->worker.joinable()) state_->worker.join();
}

void NativeSetup::start(SetupCommand command) {
  auto& state = *state_;
  {
    const std::lock_guard lock(state.mutex);
    require(!state.view.running, "busy", "Setup is already running");
    state.view = View();
    state.view.running = true;
  }
  if (state.worker.joinable()) state.worker.join();
  state.cancel_requested = false;
  try {
    state.worker = std::thread([&state, command = std::move(command)] { state.run(command); });
  } catch (const std::exception&) {
    const std::lock_guard lock(state.mutex);
    state.view.running = false;
    throw;
  }
}

NativeSetup::View NativeSetup::view() const {
  const std::lock_guard lock(state_->mutex);
  return state_->view;
}

void NativeSetup::set_wakeup(std::function<void()> wakeup) {
  const std::lock_guard lock(state_->mutex);
  // The former one is destroyed outside the lock: what it holds may ask for the view.
  state_->wakeup.swap(wakeup);
}

void NativeSetup::cancel() noexcept { state_->cancel_requested = true; }

}  // namespace tavro
