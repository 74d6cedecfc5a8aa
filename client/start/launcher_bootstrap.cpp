#include "start/launcher_bootstrap.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <optional>
#include <set>

#include "console/cli_entry.h"
#include "console/console_report.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "installation/repair_advice.h"
#include "launcher/launcher_startup.h"
#include "launcher/start_marker.h"
#include "maintenance/maintenance_control.h"
#include "platform/archives/snapshot.h"
#include "platform/process/image_replacement.h"
#include "platform/process/interrupt.h"
#include "start/bootstrap_answers.h"
#include "start/candidate_start.h"
#include "start/direct_start.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds longest_startup{30000};
/// Starts of one version in a row that may fail before it is passed over.
constexpr std::int64_t failed_starts_bound = 2;
constexpr std::string_view misplaced_data_dir =
    "Set the data directory on the native bootstrap, before forwarded arguments";

/// What follows "--" belongs to a game and is not read.
void refuse_data_dir(const std::vector<std::string>& arguments) {
  const auto border = std::find(arguments.begin(), arguments.end(), "--");
  require(std::find(arguments.begin(), border, "--data-dir") == border, "usage",
          misplaced_data_dir);
}

std::optional<LauncherReference> newest_on_disk(const LauncherStore& store) {
  try {
    return store.newest_version();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

/// Whether the failure lies with the disk of this machine, and neither with a version nor with
/// somebody who is at work.
bool lies_with_the_disk(std::string_view code) {
  return local_storage_failure(code) || code == "lock_failed" || code == "unsafe_path";
}

/// A version that does not start, why not, and what the user can do about it.
void tell(std::string_view what, const Error& error, std::string_view end) {
  std::cerr << "tavro: " << what << " (" << error.code << "): " << error.what() << end << std::endl;
  for (const auto& command : error.next_commands) std::cerr << "Try: " << command << std::endl;
}

/// One run of the bootstrap.
class BootstrapRun {
 public:
  BootstrapRun(const fs::path& root, std::string_view interface)
      : root_(root), interface_(interface) {}

  int run(const std::vector<std::string>& arguments, milliseconds startup_limit);

 private:
  bool windowed() const { return interface_ == "gui"; }
  bool cancelled() const { return interrupt_ && interrupt_->requested(); }

  /// Reads the console's line; a status when it is answered already.
  std::optional<int> answer(const std::vector<std::string>& arguments);
  [[noreturn]] void start_maintenance(const std::vector<std::string>& arguments, bool as_json);
  /// The status of the candidate after its end; nothing when a working version is to start.
  std::optional<int> start_waiting(const LauncherStore& store, const LauncherRecord& record,
                                   milliseconds limit);
  void start_working(const LauncherStore& store, const std::optional<LauncherRecord>& record);
  void try_version(const LauncherStore& store, const LauncherReference& reference);
  [[noreturn]] void become(const LauncherStore& store, const LauncherReference& reference);
  /// The tree of a version that failed its proof before is at least whole.
  void prove_failed_before(const LauncherManifest& manifest, const fs::path& payload,
                           const LauncherReference& reference) const;
  /// Which start in a row this is without one that came up; proves a version that failed before.
  std::int64_t count_start(const LauncherManifest& manifest, const fs::path& payload,
                           const std::string& name) const;

  fs::path root_;
  std::string interface_;
  std::vector<std::string> launcher_arguments_;
  CliEntry line_;
  /// Of the console, until the process is replaced.
  std::unique_ptr<ConsoleInterrupt> interrupt_;
  StartMarker failed_;
  std::optional<LauncherFailure> failed_candidate_;
  std::set<std::string> tried_;
  std::string last_code_ = "launcher_damaged";
  std::string last_message_ = branded("No installed Tavro version could be started");
};

int BootstrapRun::run(const std::vector<std::string>& arguments, milliseconds startup_limit) {
  if (windowed()) {
    refuse_data_dir(arguments);
    launcher_arguments_ = launcher_arguments(root_, arguments);
  } else {
    interrupt_ = std::make_unique<ConsoleInterrupt>(false);
    if (const auto status = answer(arguments)) return *status;
  }
  const auto store = LauncherStore::for_launch(root_);
  auto record = store->usable_record();
  if (record && record->on_probation()) {
    if (const auto status = start_waiting(*store, *record, startup_limit)) return *status;
    record = store->usable_record();
  }
  start_working(*store, record);
  if (windowed() && arguments.size() == 2 && arguments[0] == "--launch") {
    std::cerr << "tavro: starting " << arguments[1]
              << branded(" directly; repair Tavro by running its installer again\n");
    start_installed_game(root_, arguments[1], true);
  }
  if (stands(store->directory()))
    std::cerr << "tavro: to mend it, run: " << repair_command(root_) << std::endl;
  throw Error(last_code_, last_message_);
}

std::optional<int> BootstrapRun::start_waiting(const LauncherStore& store,
                                               const LauncherRecord& record, milliseconds limit) {
  const LauncherStart start{root_, interface_, launcher_arguments_, [this] { return cancelled(); }};
  try {
    return start_candidate(start, record.active ? limit : longest_startup);
  } catch (const Error& error) {
    // What a running start keeps from starting, it does not keep from being asked after.
    if (error.code == "launcher_running" && asks_for_status(line_))
      return print_status(store, line_.json);
    if (!record.active || !lies_with_the_disk(error.code)) throw;
    tell("the waiting version cannot be tried", error, "; the working one starts");
    return std::nullopt;
  }
}

std::optional<int> BootstrapRun::answer(const std::vector<std::string>& arguments) {
  line_ = parse_cli_entry(arguments, root_, nullptr);
  require(!line_.data_dir_set, "usage", misplaced_data_dir);
  // A line without words is for the launcher, which may have more to say than its commands.
  if (line_.help && !arguments.empty()) return print_help(line_.json);
  auto forwarded = line_.args;
  if (line_.json) forwarded.insert(forwarded.begin(), "--json");
  const auto control =
      native_maintenance_control(root_, line_.args, [this] { return cancelled(); });
  if (!control.is_null()) {
    write_line(compact_line(control));
    return 0;
  }
  const auto maintenance = maintenance_arguments(forwarded, root_);
  if (!maintenance.empty()) start_maintenance(maintenance, line_.json);
  launcher_arguments_ = launcher_arguments(root_, forwarded);
  return std::nullopt;
}

void BootstrapRun::start_maintenance(const std::vector<std::string>& arguments, bool as_json) {
  // Looked for first: the store is made where it is missing, and here is nothing to be made.
  require_installed(stands(DataPaths(root_).launcher), root_);
  LauncherStore store(root_);
  const auto owner = store.owner();
  store.recover_attempt();
  const auto active = store.record().active;
  const auto version = active ? *active : store.newest_version();
  const auto lease = store.version_guard(version, LockMode::shared);
  prepare_console_maintenance(
      store, version, root_, [this] { return cancelled(); }, as_json)
      ->replace(arguments);
  fail("maintenance_failed", "Maintenance process replacement returned unexpectedly");
}

void BootstrapRun::start_working(const LauncherStore& store,
                                 const std::optional<LauncherRecord>& record) {
  if (windowed()) failed_ = failed_starts(root_);
  if (record) {
    failed_candidate_ = record->failed_candidate;
    for (const auto* proved : {&record->active, &record->rollback})
      if (*proved) try_version(store, **proved);
  }
  // Looked for only now: it reads every descriptor on the disk.
  if (const auto newest = newest_on_disk(store)) try_version(store, *newest);
}

void BootstrapRun::try_version(const LauncherStore& store, const LauncherReference& reference) {
  if (!tried_.insert(reference.manifest_sha256).second) return;
  try {
    become(store, reference);
  } catch (const Error& error) {
    tell("launcher version unusable", error, "");
    last_code_ = error.code;
    last_message_ = error.what();
  } catch (const std::exception& error) {
    std::cerr << "tavro: launcher version unusable: " << error.what() << std::endl;
    last_message_ = error.what();
  }
}

void BootstrapRun::become(const LauncherStore& store, const LauncherReference& reference) {
  const auto manifest = store.manifest(reference);
  const auto payload = store.payload(reference);
  const auto entry = present_entry(store, reference, manifest, interface_);
  const auto count = count_start(manifest, payload, reference.manifest_sha256);
  prove_failed_before(manifest, payload, reference);
  if (windowed()) mark_start(root_, reference.manifest_sha256, count);
  interrupt_.reset();
  exec_process(entry, launcher_arguments_, payload, cleared_startup_environment());
}

void BootstrapRun::prove_failed_before(const LauncherManifest& manifest, const fs::path& payload,
                                       const LauncherReference& reference) const {
  const bool failed_before =
      failed_candidate_ && failed_candidate_->reference &&
      failed_candidate_->reference->manifest_sha256 == reference.manifest_sha256;
  if (!failed_before) return;
  verify_snapshot_tree(manifest, payload);
  std::cerr << "tavro: launcher build " << reference.build_id << " did not start before ("
            << failed_candidate_->problem << "); it is tried again" << std::endl;
}

std::int64_t BootstrapRun::count_start(const LauncherManifest& manifest, const fs::path& payload,
                                       const std::string& name) const {
  if (failed_.manifest_sha256 != name) return 1;
  if (failed_.attempts >= failed_starts_bound)
    throw Error("launcher_damaged", branded("This Tavro version failed to start twice"),
                {repair_command(root_)});
  verify_snapshot_tree(manifest, payload);
  return failed_.attempts + 1;
}

}  // namespace

int run_launcher_bootstrap(const fs::path& root, std::string_view interface,
                           const std::vector<std::string>& arguments, milliseconds startup_limit,
                           std::unique_ptr<NativeFileLock>*) {
  interface_shape(interface);
  require(startup_limit.count() >= 1 && startup_limit <= longest_startup, "launcher_health",
          "Launcher startup limit must be bounded to 30 seconds");
  return BootstrapRun(root, interface).run(arguments, startup_limit);
}

std::vector<std::string> launcher_arguments(const fs::path& root,
                                            const std::vector<std::string>& forwarded) {
  std::vector<std::string> arguments = {"--data-dir",
                                        path_utf8(fs::absolute(root).lexically_normal())};
  arguments.insert(arguments.end(), forwarded.begin(), forwarded.end());
  return arguments;
}

}  // namespace tavro
