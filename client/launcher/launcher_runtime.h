#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

namespace tavro {

/// What a running launcher holds: the leases that keep its version from being retired. They last
/// until the process ends, also when the object dies before.
///
/// A launcher attaches in the first lines of its `main`, brings its front end up (in a console with
/// a `ConsoleInterrupt` that attaches), and then reports its health. A failure of any of these ends
/// the launcher: one that cannot prove what it is does not run.
class LauncherRuntime {
 public:
  /// Proves that the running image is the entry point of `interface` ("cli" or "gui") of a stored
  /// version of this build. On a candidate start it also acknowledges the take-over to the waiting
  /// bootstrap and takes the start's authority out of the environment; one attempt can be attached
  /// to once. Null for an image outside every store, such as one of a development build.
  ///
  /// `root` is the data folder the launcher works in. Call it before any other thread exists.
  /// Throws `launcher_interface`, `invalid_identity`, `launcher_identity`, `launcher_health`,
  /// `launcher_state`, and what `reject_staged_image` and the store, its locks and its documents
  /// throw.
  static std::unique_ptr<LauncherRuntime> attach(std::string_view build_id,
                                                 std::string_view interface,
                                                 const std::filesystem::path& root);
  ~LauncherRuntime();
  LauncherRuntime(const LauncherRuntime&) = delete;
  LauncherRuntime& operator=(const LauncherRuntime&) = delete;

  /// Tells the waiting bootstrap that the launcher is ready, once; does nothing on an ordinary
  /// start. Throws `launcher_health` when the attempt is over, and what the store and
  /// `atomic_create` throw.
  void report_health();

 private:
  struct State;
  explicit LauncherRuntime(std::unique_ptr<State> state);

  std::unique_ptr<State> state_;
};

/// Whether the environment carries the authority of a candidate start.
bool launcher_startup_pending();

/// `report_health`, for a runtime that may be null.
void report_launcher_health(LauncherRuntime* runtime);

/// Ends the count of starts of a windowed launcher, which calls it once it is up. A console that is
/// up may call it too: the version works then, and its window deserves another try. Never fails.
void confirm_launcher_start(const std::filesystem::path& root) noexcept;

}  // namespace tavro
