#include "launcher/launcher_runtime.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_startup.h"
#include "launcher/launcher_store.h"
#include "launcher/runtime_image.h"
#include "launcher/start_marker.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/process/interrupt.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

std::string startup_variable(const char* name) {
  constexpr std::size_t variable_bytes = 8192;
  return process_environment(name, variable_bytes);
}

unsigned long long own_pid() { return static_cast<unsigned long long>(getpid()); }

/// Which version starts in which folder, and in which attempt.
struct StartAuthority {
  fs::path root;
  LauncherReference reference;
  /// Nothing without a word of the bootstrap.
  std::optional<LauncherAttempt> attempt;
};

StartAuthority read_authority(const std::string& nonce, std::string_view build_id,
                              std::string_view interface, const fs::path& root) {
  nonce_identity(nonce);
  const auto named = path_from_utf8(startup_variable(launcher_root_environment));
  auto data_root = named.empty() ? fs::path() : ordinary_root(named);
  require(startup_variable(launcher_build_environment) == build_id &&
              startup_variable(launcher_interface_environment) == interface &&
              same_place(data_root, root),
          "launcher_health", "Launcher startup does not match this build, interface or data root");
  auto reference = LauncherReference::parse(
      {{"manifest_sha256", startup_variable(launcher_manifest_environment)},
       {"build_id", build_id}});
  LauncherAttempt attempt{nonce, reference, {}};
  return {std::move(data_root), std::move(reference), std::move(attempt)};
}

/// What this process starts can then never pose as the launcher of the attempt.
void clear_authority() {
  for (const char* name : launcher_startup_variables)
    require(unsetenv(name) == 0, "launcher_health", "Cannot clear launcher startup authority");
}

}  // namespace

/// What is held while the launcher runs; construction takes the leases and proves the image.
struct LauncherRuntime::State {
  State(StartAuthority start, std::string_view front_end);
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  bool pending(const LauncherStore& store) const { return store.record().attempt == attempt; }

  fs::path root;
  LauncherReference reference;
  /// Nothing on an ordinary start.
  std::optional<LauncherAttempt> attempt;
  std::string interface;
  bool reported = false;
  std::unique_ptr<FileLock> attempt_lease;
  std::unique_ptr<FileLock> version_lease;
};

LauncherRuntime::State::State(StartAuthority start, std::string_view front_end)
    : root(std::move(start.root)),
      reference(std::move(start.reference)),
      attempt(std::move(start.attempt)),
      interface(front_end) {
  const auto store = LauncherStore::for_launch(root);
  if (attempt) attempt_lease = store->attempt_lease(*attempt, LockMode::shared);
  version_lease = store->version_guard(reference, LockMode::shared);
  const auto manifest = store->manifest(reference);
  const auto payload = store->payload(reference);
  require(same_place(safe_join(payload, manifest.entry_point(interface), true),
                     current_executable_path()),
          "launcher_identity",
          "Running launcher image differs from its verified native entry point");
  if (!attempt) return;
  // With the lease held the attempt cannot be given up behind this look.
  require(pending(*store), "launcher_health",
          "Launcher startup is no longer pending or cannot protect its content");
  atomic_create(store->startup_ack_path(*attempt),
                lease_document(manifest, attempt->to_json(), own_pid(), interface).dump());
  clear_authority();
}

LauncherRuntime::State::~State() {
  // What outlives `main` still runs from a protected folder.
  if (attempt_lease) attempt_lease->retain_until_process_exit();
  if (version_lease) version_lease->retain_until_process_exit();
}

std::unique_ptr<LauncherRuntime> LauncherRuntime::attach(std::string_view build_id,
                                                         std::string_view interface,
                                                         const fs::path& root) {
  interface_shape(interface);
  validate_identifier(build_id);
  const auto ordinary = ordinary_root(root);
  const auto image = current_executable_path();
  reject_staged_image(image);

  StartAuthority start;
  const auto nonce = startup_variable(launcher_nonce_environment);
  if (nonce.empty()) {
    const auto version = managed_version(image);
    if (!version) return nullptr;
    start.root = version->root;
    start.reference = {version->manifest_sha256, std::string(build_id), {}};
  } else {
    start = read_authority(nonce, build_id, interface, ordinary);
  }
  return std::unique_ptr<LauncherRuntime>(
      new LauncherRuntime(std::make_unique<State>(std::move(start), interface)));
}

LauncherRuntime::LauncherRuntime(std::unique_ptr<State> state) : state_(std::move(state)) {}

LauncherRuntime::~LauncherRuntime() = default;

void LauncherRuntime::report_health() {
  auto& state = *state_;
  if (!state.attempt || state.reported) return;
  require(state.attempt_lease && state.version_lease, "launcher_health",
          "Launcher startup health needs its live native leases");
  const LauncherStore store(state.root);
  require(state.pending(store), "launcher_health", "Launcher startup attempt is no longer pending");
  const auto manifest = store.manifest(state.reference);
  const auto path = store.health_path(*state.attempt);
  const auto health = manifest.startup_health(state.attempt->to_json(), own_pid(), state.interface,
                                              ConsoleInterrupt::parent_reader_attached());
  // Created in one step: the bootstrap reads it as soon as the name stands.
  atomic_create(path, health.dump());
  state.reported = true;
}

bool launcher_startup_pending() { return !startup_variable(launcher_nonce_environment).empty(); }

void report_launcher_health(LauncherRuntime* runtime) {
  if (runtime != nullptr) runtime->report_health();
}

void confirm_launcher_start(const fs::path& root) noexcept { clear_failed_starts(root); }

}  // namespace tavro
