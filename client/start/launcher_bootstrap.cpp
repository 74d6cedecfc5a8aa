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
#include "launcher/launcher_startup.h"
#include "launcher/start_marker.h"
#include "maintenance/maintenance_control.h"
#include "platform/archives/snapshot.h"
#include "platform/process/image_replacement.h"
#include "platform/process/interrupt.h"
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

int print_help(bool as_json) {
  if (as_json)
    std::cout << compact_line({{"schema_version", 1}, {"kind", "help"}, {"text", cli_help()}})
              << "\n";
  else
    std::cout << cli_help();
  std::cout.flush();
  return 0;
}

json newest_on_disk(const LauncherStore& store) {
  try {
    return store.fallback_active();
  } catch (const std::exception&) {
    return nullptr;
  }
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
  void start_working(const LauncherStore& store, const std::optional<json>& record);
  void try_version(const LauncherStore& store, const json& reference);
  [[noreturn]] void become(const LauncherStore& store, const json& reference);
  /// Which start in a row this is without one that came up; proves a version that failed before.
  std::int64_t count_start(const LauncherManifest& manifest, const fs::path& payload,
                           const std::string& name) const;

  fs::path root_;
  std::string interface_;
  std::vector<std::string> launcher_arguments_;
  /// Of the console, until the process is replaced.
  std::unique_ptr<ConsoleInterrupt> interrupt_;
  StartMarker failed_;
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
  auto record = store->selection();
  if (record && !(record->at("attempt").is_null() && record->at("candidate").is_null())) {
    const bool first = record->at("active").is_null();
    const LauncherStart start{root_, interface_, launcher_arguments_,
                              [this] { return cancelled(); }};
    if (const auto status = start_candidate(start, first ? longest_startup : startup_limit))
      return *status;
    record = store->selection();
  }
  start_working(*store, record);
  if (windowed() && arguments.size() == 2 && arguments[0] == "--launch") {
    std::cerr << "tavro: starting " << arguments[1]
              << branded(" directly; repair Tavro by running its installer again\n");
    start_installed_game(root_, arguments[1], true);
  }
  throw Error(last_code_, last_message_);
}

std::optional<int> BootstrapRun::answer(const std::vector<std::string>& arguments) {
  const auto entry = parse_cli_entry(arguments, root_, nullptr);
  require(!entry.data_dir_set, "usage", misplaced_data_dir);
  // A line without words is for the launcher, which may have more to say than its commands.
  if (entry.help && !arguments.empty()) return print_help(entry.json);
  auto forwarded = entry.args;
  if (entry.json) forwarded.insert(forwarded.begin(), "--json");
  const auto control =
      native_maintenance_control(root_, entry.args, [this] { return cancelled(); });
  if (!control.is_null()) {
    std::cout << compact_line(control) << std::endl;
    return 0;
  }
  const auto maintenance = maintenance_arguments(forwarded, root_);
  if (!maintenance.empty()) start_maintenance(maintenance, entry.json);
  launcher_arguments_ = launcher_arguments(root_, forwarded);
  return std::nullopt;
}

void BootstrapRun::start_maintenance(const std::vector<std::string>& arguments, bool as_json) {
  LauncherStore store(root_);
  const auto owner = store.owner();
  store.recover_attempt();
  auto version = store.status().at("active");
  if (version.is_null()) version = store.fallback_active();
  const auto lease = store.version_guard(version, LockMode::shared);
  prepare_console_maintenance(
      store, version, root_, [this] { return cancelled(); }, as_json)
      ->replace(arguments);
  fail("maintenance_failed", "Maintenance process replacement returned unexpectedly");
}

void BootstrapRun::start_working(const LauncherStore& store, const std::optional<json>& record) {
  if (windowed()) failed_ = failed_starts(root_);
  if (record)
    for (const auto* key : {"active", "rollback"}) try_version(store, record->at(key));
  // Looked for only now: it reads every descriptor on the disk.
  try_version(store, newest_on_disk(store));
}

void BootstrapRun::try_version(const LauncherStore& store, const json& reference) {
  if (!reference.is_object() || !tried_.insert(reference.at("manifest_sha256")).second) return;
  try {
    become(store, reference);
  } catch (const Error& error) {
    std::cerr << "tavro: launcher version unusable (" << error.code << "): " << error.what()
              << std::endl;
    last_code_ = error.code;
    last_message_ = error.what();
  } catch (const std::exception& error) {
    std::cerr << "tavro: launcher version unusable: " << error.what() << std::endl;
    last_message_ = error.what();
  }
}

void BootstrapRun::become(const LauncherStore& store, const json& reference) {
  const auto manifest = store.manifest(reference);
  const auto payload = store.payload(reference);
  const auto entry = present_entry(store, reference, manifest, interface_);
  const std::string name = reference.at("manifest_sha256");
  const auto count = count_start(manifest, payload, name);
  if (windowed()) mark_start(root_, name, count);
  interrupt_.reset();
  exec_process(entry, launcher_arguments_, payload, cleared_startup_environment());
}

std::int64_t BootstrapRun::count_start(const LauncherManifest& manifest, const fs::path& payload,
                                       const std::string& name) const {
  if (failed_.manifest_sha256 != name) return 1;
  require(failed_.attempts < failed_starts_bound, "launcher_damaged",
          [] { return branded("This Tavro version failed to start twice"); });
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
