#include "maintenance/maintenance_runtime.h"

#include <nlohmann/json.hpp>

#include <system_error>
#include <thread>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "launcher/launcher_startup.h"
#include "launcher/runtime_image.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/process/child_process.h"
#include "platform/process/image_replacement.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr std::size_t variable_bytes = 8192;
constexpr milliseconds ready_interval{10};
constexpr milliseconds termination_grace{250};

/// The first helper of the role, in the order of the paths.
const std::string& helper_path(const LauncherManifest& manifest, std::string_view role) {
  for (const auto& [path, declared] : manifest.runtime_helpers)
    if (declared == role) return path;
  fail("maintenance_unavailable", branded("This Tavro version has no ") + std::string(role) +
                                      branded(" helper; use the Tavro installer to uninstall"));
}

/// Takes the ready file away at the end of the wait, however that ends: after the helper was
/// stopped, so that one which came too late leaves none.
struct ReadyFile {
  const fs::path& path;

  ~ReadyFile() { native_files::remove_quietly(path); }
};

fs::path temporary_folder() {
  std::error_code error;
  const fs::path folder = fs::canonical(fs::temp_directory_path(error), error);
  require(!error && fs::is_directory(folder, error), "maintenance_startup",
          "The temporary folder cannot be used; set TMPDIR to a folder that exists");
  return folder;
}

/// A name that nobody can guess, so that nobody else can speak for the helper.
fs::path new_ready_file(const fs::path& copy) {
  // Other users write there too, so that a link in the way is followed once, and here.
  const auto folder = copy.empty() ? temporary_folder() : copy;
  return folder / ("tavro-maintenance-ready-" + random_id());
}

}  // namespace

std::unique_ptr<MaintenanceRuntime> MaintenanceRuntime::prepare(LauncherStore& store,
                                                                const LauncherReference& reference,
                                                                std::string_view role,
                                                                const fs::path&,
                                                                const MaintenanceProgress&) {
  const auto manifest = store.manifest(reference);
  const auto& path = helper_path(manifest, role);
  auto image = safe_join(store.payload(reference), path, true);
  const auto& declared = manifest.files.at(path);
  require(
      fs::file_size(image) == declared.length && digest_file(image, "sha256") == declared.sha256,
      "content_mismatch", [] {
        return branded("The maintenance helper is damaged; run the Tavro installer to repair it");
      });
  std::unique_ptr<MaintenanceRuntime> runtime(new MaintenanceRuntime);
  runtime->image_ = std::move(image);
  return runtime;
}

std::unique_ptr<MaintenanceRuntime> MaintenanceRuntime::prepare(
    LauncherStore& store, const json& reference, std::string_view role, const fs::path& root,
    const MaintenanceProgress& progress) {
  return prepare(store, present_reference(reference, "Install a verified launcher first"), role,
                 root, progress);
}

std::unique_ptr<MaintenanceRuntime> MaintenanceRuntime::attach(std::string_view, std::string_view) {
  const auto copy = process_environment(maintenance_copy_environment, variable_bytes);
  const auto ready = process_environment(maintenance_ready_environment, variable_bytes);
  if (copy.empty() && ready.empty()) return nullptr;
  std::unique_ptr<MaintenanceRuntime> runtime(new MaintenanceRuntime);
  runtime->attached_ = true;
  runtime->image_ = current_executable_path();
  runtime->ready_ = path_from_utf8(ready);
  if (copy.empty()) return runtime;
  auto folder = path_from_utf8(copy);
  require(is_maintenance_copy(folder) && runtime->image_.parent_path() == folder,
          "maintenance_copy", "Maintenance helper copy path is invalid");
  // Only now is it ours to remove.
  runtime->copy_ = std::move(folder);
  return runtime;
}

MaintenanceRuntime::~MaintenanceRuntime() {
  if (copy_.empty()) return;
  if (attached_)
    native_files::remove_after_exit(copy_);
  else if (!launched_)
    remove_path_quietly(copy_);
}

std::map<std::string, std::string> MaintenanceRuntime::environment() const {
  auto environment = cleared_startup_environment();
  environment.emplace(maintenance_copy_environment, path_utf8(copy_));
  environment.emplace(maintenance_ready_environment, path_utf8(ready_));
  return environment;
}

void MaintenanceRuntime::replace(const std::vector<std::string>& arguments) {
  launched_ = true;
  replace_process(image_, arguments, image_.parent_path(), environment());
}

std::unique_ptr<ChildProcess> MaintenanceRuntime::launch_console(
    const std::vector<std::string>& arguments) {
  launched_ = true;
  return std::make_unique<ChildProcess>(image_, arguments, image_.parent_path(), environment(),
                                        ChildStreams::output_inherited, ChildEnvironment::whole,
                                        nullptr, ChildGroup::own, ChildControl::interrupt);
}

std::unique_ptr<ChildProcess> MaintenanceRuntime::launch_gui(
    const std::vector<std::string>& arguments, milliseconds limit) {
  ready_ = new_ready_file(copy_);
  const ReadyFile ready_file{ready_};
  launched_ = true;
  auto helper = std::make_unique<ChildProcess>(
      image_, arguments, image_.parent_path(), environment(), ChildStreams::output_to_errors,
      ChildEnvironment::whole, nullptr, ChildGroup::inherited, ChildControl::none);
  if (shows_itself(*helper, limit)) return helper;
  (void)helper->terminate(termination_grace);
  fail("maintenance_startup", "The uninstall window did not open");
}

bool MaintenanceRuntime::shows_itself(ChildProcess& helper, milliseconds limit) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + limit;
  for (;; std::this_thread::sleep_for(ready_interval)) {
    // Asked before the look, so that what the helper wrote before its end counts.
    const bool ended = helper.poll().has_value();
    if (stands(ready_)) return true;
    if (ended || Clock::now() >= deadline) return false;
  }
}

void MaintenanceRuntime::report_ready() {
  // Not `atomic_write`: that would make the system's temporary folder, which others share, private.
  if (!ready_.empty()) atomic_create(ready_, "ready");
  ready_.clear();
}

std::vector<std::string> maintenance_arguments(const std::vector<std::string>& arguments,
                                               const fs::path& root) {
  auto words = arguments;
  const bool as_json = std::erase(words, "--json") > 0;
  if (words.size() < 2 || words[0] != "self" || words[1] != "uninstall") return {};
  std::vector<std::string> result = {"uninstall", "--data-dir", path_utf8(root)};
  for (auto word = words.begin() + 2; word != words.end(); ++word) {
    require(*word == "--remove-data", "usage", "Use self uninstall [--remove-data]");
    result.push_back(*word);
  }
  if (as_json) result.emplace_back("--json");
  return result;
}

}  // namespace tavro
