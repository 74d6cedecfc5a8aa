#include "launcher/launcher_store.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/repair_advice.h"
#include "platform/files/durable_files.h"
#include "platform/files/folder_access.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/storage/storage_volume.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t fallback_entries = 64;
constexpr std::string_view record_name = "installation.json";

bool is_version_folder(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(fs::symlink_status(path, error)) &&
         path_utf8(path.filename()).size() == 64;
}

/// In no order. A missing folder holds no version; one that cannot be read is no answer.
std::vector<fs::path> version_entries(const fs::path& folder) {
  if (type_at(folder) == fs::file_type::not_found) return {};
  return folder_entries(folder, fallback_entries, "Too many launcher versions to choose a fallback",
                        "launcher_state");
}

}  // namespace

fs::path ordinary_root(const fs::path& path) {
  const auto normal = fs::weakly_canonical(fs::absolute(path)).lexically_normal();
  require_unlinked(normal);
  return normal;
}

LauncherStore::LauncherStore(const fs::path& root, bool staged_install)
    : LauncherStore(root, Paths{}) {
  if (!staged_install) require_complete_native_install(root_);
  const auto make_private = [&](const fs::path& folder) {
    advising(root_, folder, [&] { private_directory(folder); });
  };
  make_private(directory_);
  for (const auto folder : launcher_folders) make_private(child(folder));
  record();
}

LauncherStore::LauncherStore(const fs::path& root, ExistingStore) : LauncherStore(root, Paths{}) {
  require_complete_native_install(root_);
  inspect_storage_directory(directory_);
  constexpr std::array<std::string_view, 4> folders = {"manifests", "downloads", "download-intents",
                                                       "intents"};
  for (const auto folder : folders) inspect_storage_directory(child(folder));
  record();
}

LauncherStore::LauncherStore(const fs::path& root, LaunchView) : LauncherStore(root, Paths{}) {
  require_complete_native_install(root_);
}

LauncherStore::LauncherStore(const fs::path& root, Paths)
    : root_(ordinary_root(root)), directory_(safe_join(root_, "launcher", true)) {}

std::unique_ptr<LauncherStore> LauncherStore::existing(const fs::path& root) {
  return std::make_unique<LauncherStore>(root, ExistingStore{});
}

std::unique_ptr<LauncherStore> LauncherStore::for_launch(const fs::path& root) {
  return std::make_unique<LauncherStore>(root, LaunchView{});
}

fs::path LauncherStore::child(std::string_view relative) const {
  return advising(root_, directory_ / relative,
                  [&] { return safe_join(directory_, relative, true); });
}

LauncherRecord LauncherStore::record() const {
  const auto path = directory_ / record_name;
  std::error_code error;
  // Only a name that is surely absent means a new store; all else must be readable.
  if (fs::symlink_status(path, error).type() == fs::file_type::not_found) return {};
  const json document = advising(root_, path, [&] {
    return parse_json(read_file(path, launcher_record_bytes), launcher_record_bytes);
  });
  try {
    return LauncherRecord::parse(document);
  } catch (const Error& failure) {
    throw Error(failure.code, failure.what(),
                {repair_command(root_), "Look at " + path_utf8(path) + ", which stays as it is"});
  }
}

std::optional<LauncherRecord> LauncherStore::usable_record() const {
  constexpr std::array<std::string_view, 4> unusable = {"launcher_state", "unsupported_schema",
                                                        "invalid_json", "size_limit"};
  try {
    return record();
  } catch (const Error& error) {
    for (const auto code : unusable)
      if (error.code == code) return std::nullopt;
    throw;
  }
}

void LauncherStore::save(json state) const {
  const auto generation = state.at("generation").get<std::uint64_t>();
  require(generation < UINT64_MAX, "launcher_state", "Launcher state generation is exhausted");
  state["generation"] = generation + 1;
  const auto text = state.dump();
  require(text.size() <= launcher_record_bytes, "size_limit",
          "Launcher state exceeds its durable bound");
  atomic_write(child(record_name), text);
}

LauncherManifest LauncherStore::manifest(const LauncherReference& reference) const {
  const auto& name = reference.manifest_sha256;
  const auto text = read_file(child("manifests/" + name + ".json"), launcher_descriptor_bytes);
  require(digest(text, "sha256") == name, "content_mismatch", "Stored launcher manifest changed");
  auto manifest = LauncherManifest::parse(parse_json(text, launcher_descriptor_bytes));
  require(manifest.build_id == reference.build_id && manifest.platform == native_platform(),
          "launcher_state", "Launcher identity/platform differs from its local reference");
  return manifest;
}

fs::path LauncherStore::payload(const LauncherReference& reference) const {
  return child("versions/" + reference.manifest_sha256);
}

LauncherReference LauncherStore::newest_version() const {
  std::optional<LauncherReference> newest;
  fs::file_time_type newest_time;
  for (const auto& folder : version_entries(child("versions"))) {
    if (!is_version_folder(folder)) continue;
    try {
      auto reference = stored_reference(path_utf8(folder.filename()));
      manifest(reference);
      const auto time = fs::last_write_time(folder);
      if (newest && time <= newest_time) continue;
      newest = std::move(reference);
      newest_time = time;
    } catch (const std::exception&) {
      // A version that cannot be proved is no way back; it stays for whoever can read it.
      continue;
    }
  }
  require(newest.has_value(), "launcher_missing",
          [] { return branded("No installed Tavro version could be started"); }, {"self status"});
  return *newest;
}

LauncherReference LauncherStore::stored_reference(const std::string& name) const {
  const auto text = read_file(child("manifests/" + name + ".json"), launcher_descriptor_bytes);
  return LauncherReference::parse(
      {{"manifest_sha256", name},
       {"build_id", parse_json(text, launcher_descriptor_bytes).at("build_id")}});
}

std::unique_ptr<FileLock> LauncherStore::lock(const fs::path& path, LockMode mode) const {
  return advising(root_, path, [&] { return std::make_unique<FileLock>(path, false, mode); });
}

std::unique_ptr<FileLock> LauncherStore::owner() const {
  using clock = std::chrono::steady_clock;
  const auto path = child("bootstrap.lock");
  const auto deadline = clock::now() + std::chrono::seconds(2);
  for (;;) {
    try {
      return lock(path, LockMode::exclusive);
    } catch (const Error& error) {
      if (error.code != "busy" || clock::now() >= deadline) throw;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::unique_ptr<FileLock> LauncherStore::version_guard(const LauncherReference& reference,
                                                       LockMode mode) const {
  if (mode == LockMode::exclusive) {
    try {
      manifest(reference);
    } catch (const Error&) {
      fail("launcher_recovery_uncertain",
           "This launcher version has an unknown contract; preserve its content");
    }
  }
  return lock(child("leases/versions/" + reference.manifest_sha256 + ".lock"), mode);
}

fs::path present_entry(const LauncherStore& store, const LauncherReference& reference,
                       const LauncherManifest& manifest, std::string_view interface) {
  const auto& path = manifest.entry_point(interface);
  auto entry = safe_join(store.payload(reference), path, true);
  std::error_code missing;
  const auto size = fs::file_size(entry, missing);
  require(!missing && size == manifest.files.at(path).length, "launcher_damaged",
          [] { return branded("Tavro's files are damaged. Reinstall Tavro to repair them."); });
  return entry;
}

}  // namespace tavro
