#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "domain/json.h"

namespace tavro {

/// Runs maintenance for a window that must not block: one work at a time, on a thread of its own,
/// with a view that can be asked for at any moment. No failure reaches the caller but through the
/// view. `view`, `set_wakeup` and `cancel` may be called from any thread, everything else by one.
class MaintenanceHandoff {
 public:
  MaintenanceHandoff();
  /// Takes the wakeup away and waits for the work. A helper that was started runs on.
  ~MaintenanceHandoff();
  MaintenanceHandoff(const MaintenanceHandoff&) = delete;
  MaintenanceHandoff& operator=(const MaintenanceHandoff&) = delete;

  /// An object of `phase` ("starting", then "ready", "succeeded" or "failed"), `problem` (null, or
  /// an object of `code` and `message`) and `result` (null, or what the work returned); and of
  /// `cancellable` (false), `completed_bytes` and `total_bytes` (0) and `owned_path` (""), which no
  /// work sets. Null before the first work.
  json view() const;

  /// What is called after each change of the view, on the thread that made it: the caller's for
  /// "starting", else the work's. It may ask for the view; it must not throw, nor start a work.
  void set_wakeup(std::function<void()> wakeup);

  /// No work stops for it: each is short, and runs to its end.
  void cancel() noexcept;
  /// Waits for the end of the work, if there is one.
  void join();

  // Each joins the work before it, so that a window calls it once the view shows that one's end.
  // `root` is absolute.

  /// Starts the windowed uninstall helper of the running build, which has 5 seconds to show itself;
  /// the view is "ready" then, and the caller's part is to end. Fails as `prepare_gui_maintenance`
  /// and `MaintenanceRuntime::launch_gui`.
  void start(const std::filesystem::path& root, std::string build_id);
  /// As `NativeInstaller::create_shortcut`; the result is an object of `created`, the path.
  void create_shortcut(const std::filesystem::path& root, std::string game,
                       const std::filesystem::path& path, std::string name);
  /// As `NativeInstaller::remove_shortcuts`; the result is an object of `removed` and `changed`,
  /// two counts.
  void remove_shortcuts(const std::filesystem::path& root);

 private:
  struct State;

  void begin(std::function<json()> work);

  std::unique_ptr<State> state_;
};

}  // namespace tavro
