#include "start/candidate_start.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <iostream>
#include <memory>
#include <thread>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "launcher/launcher_startup.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"
#include "platform/files/safe_path.h"
#include "platform/process/child_process.h"

namespace tavro {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::this_thread::sleep_for;

constexpr milliseconds health_interval{10};
constexpr milliseconds attendance_interval{20};
constexpr milliseconds ending_interval{5};
/// How long a launcher without its lease has to end: a short command does so at once.
constexpr milliseconds ending_time{100};
constexpr milliseconds termination_grace{250};
constexpr int greatest_status = 255;

/// The bootstrap's side of one start attempt; the caller holds the store's owner lock.
class Supervision {
 public:
  Supervision(LauncherStore& store, const LauncherStart& start, LauncherAttempt attempt)
      : store_(store), start_(start), attempt_(std::move(attempt)) {}

  /// Starts the launcher and makes it the active version, or throws. The leases end with this call.
  void prove(milliseconds limit);
  /// Closes the attempt of a launcher that failed for this cause, which is stopped first.
  void reject(StartupCause cause);
  /// Waits for the end of the launcher and returns its status.
  int attend();

 private:
  void start_child(const LauncherManifest& manifest, const std::filesystem::path& payload);
  void await_health();
  bool somebody_holds_lease() const;
  bool ends_soon();
  /// How the launcher ended, or that it did not, as the end of a sentence; nothing if none started.
  std::string ending();
  /// Whether no launcher of this attempt runs any more.
  bool stop();
  void pass_interrupt() {
    if (start_.cancelled()) child_->request_interrupt();
  }

  LauncherStore& store_;
  const LauncherStart& start_;
  LauncherAttempt attempt_;
  std::unique_ptr<ChildProcess> child_;
  Clock::time_point deadline_;
};

void Supervision::prove(milliseconds limit) {
  const auto& reference = attempt_.reference;
  const auto manifest = store_.manifest(reference);
  const auto payload = store_.payload(reference);
  const auto version_lease = store_.version_guard(reference, LockMode::shared);
  auto attempt_lease = store_.attempt_lease(attempt_, LockMode::shared);
  verify_snapshot_tree(manifest, payload);
  start_child(manifest, payload);
  deadline_ = Clock::now() + limit;
  await_health();
  const auto text = read_file(store_.health_path(attempt_), launcher_proof_bytes);
  const auto health = parse_json(text, launcher_proof_bytes);
  // Only without our own share does the lease tell whether the launcher has one.
  attempt_lease.reset();
  require(child_->poll() || somebody_holds_lease() || ends_soon(), "launcher_lease",
          "The running launcher did not retain native startup ownership");
  store_.confirm_candidate(attempt_, health, child_->pid(), start_.interface);
}

void Supervision::start_child(const LauncherManifest& manifest,
                              const std::filesystem::path& payload) {
  const bool console = start_.interface == "cli";
  child_ = std::make_unique<ChildProcess>(
      safe_join(payload, manifest.entry_point(start_.interface), true), start_.arguments, payload,
      store_.health_environment(attempt_, start_.interface),
      console ? ChildStreams::output_inherited : ChildStreams::output_to_errors,
      ChildEnvironment::whole, nullptr, console ? ChildGroup::own : ChildGroup::inherited,
      console ? ChildControl::interrupt : ChildControl::none);
}

void Supervision::await_health() {
  for (;; sleep_for(health_interval)) {
    pass_interrupt();
    // Asked before the look, so that what the launcher wrote before its end counts.
    const bool ended = child_->poll().has_value();
    if (stands(store_.health_path(attempt_))) return;
    require(!ended, "launcher_startup_failed", "Launcher candidate exited before initialization");
    require(Clock::now() <= deadline_, "launcher_startup_timeout",
            "Launcher candidate did not confirm initialization");
  }
}

bool Supervision::somebody_holds_lease() const {
  try {
    const auto lease = store_.attempt_lease(attempt_, LockMode::exclusive);
    return false;
  } catch (const Error& error) {
    if (error.code != "busy") throw;
    return true;
  }
}

bool Supervision::ends_soon() {
  const auto end = std::min(Clock::now() + ending_time, deadline_);
  while (!child_->poll() && Clock::now() < end) sleep_for(ending_interval);
  return child_->poll().has_value();
}

std::string Supervision::ending() {
  constexpr int signalled = 128;
  try {
    if (!child_) return {};
    const auto status = child_->poll();
    if (!status) return "; it was running still and was stopped";
    std::string text = "; it ended with status " + std::to_string(*status);
    if (*status > signalled) text += ", as by signal " + std::to_string(*status - signalled);
    return text;
  } catch (const Error&) {
    return "; how it ended is unknown";
  }
}

bool Supervision::stop() {
  try {
    return !child_ || child_->terminate(termination_grace);
  } catch (const Error&) {
    // The system cannot tell, which confirms nothing.
    return false;
  }
}

void Supervision::reject(StartupCause cause) {
  cause.sentence += ending();
  const bool stopped = stop();
  std::exception_ptr unrecorded;
  try {
    store_.reject_candidate(attempt_, stopped ? "startup_failed" : "startup_unconfirmed", cause);
  } catch (const Error&) {
    // The attempt stays open for the next start; what may still run counts for more.
    if (stopped) unrecorded = std::current_exception();
  }
  // Last: a stream that nobody reads may end this process.
  std::cerr << "tavro: launcher build " << attempt_.reference.build_id << " did not start ("
            << cause.code << "): " << cause.sentence << std::endl;
  if (unrecorded) std::rethrow_exception(unrecorded);
  // Another version beside one that may still run would share its data.
  require(stopped, "launcher_startup_timeout",
          "Launcher candidate exit is unconfirmed; the working launcher remains selected");
}

int Supervision::attend() {
  for (;; sleep_for(attendance_interval)) {
    pass_interrupt();
    if (const auto status = child_->poll()) return *status <= greatest_status ? *status : 1;
  }
}

}  // namespace

std::optional<int> start_candidate(const LauncherStart& start, milliseconds limit) {
  // What no child takes says nothing against the version.
  require_child_arguments(start.arguments);
  LauncherStore store(start.root);
  auto owner = store.owner();
  store.recover_attempt();
  const auto attempt = store.begin_attempt();
  if (!attempt) return std::nullopt;
  Supervision supervision(store, start, *attempt);
  try {
    supervision.prove(limit);
  } catch (const std::exception& failure) {
    const auto* error = dynamic_cast<const Error*>(&failure);
    supervision.reject({error != nullptr ? error->code : "unknown", failure.what()});
    if (!store.record().active) throw;
    return std::nullopt;
  }
  owner.reset();
  return supervision.attend();
}

}  // namespace tavro
