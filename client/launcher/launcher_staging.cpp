#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "installation/repair_advice.h"
#include "launcher/launcher_download.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/folder_access.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/storage/storage_plan.h"
#include "platform/storage/storage_volume.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

// What the store may hold, whatever a repository signs.
constexpr unsigned long long store_bytes = 4ULL << 30;
constexpr unsigned long store_entries = 65536;
constexpr std::size_t version_entries = 8;
/// A download takes two entries, its partial file and the record of it.
constexpr std::size_t new_download_entries = 47;
/// For the small documents that a run writes beside its payload.
constexpr unsigned long long document_margin = 1048576;

constexpr std::string_view storage_full = "launcher_storage_full";
constexpr std::string_view cleanup_command = "self cleanup";

/// A folder of the store, and how many entries it may hold when a run goes on.
struct Bound {
  std::string_view folder;
  std::size_t entries;
};
constexpr std::array<Bound, 7> record_bounds = {{{"downloads", 48},
                                                 {"manifests", 31},
                                                 {"health", 63},
                                                 {"leases/attempts", 127},
                                                 {"intents", 15},
                                                 {"staging", 15},
                                                 {"download-intents", 32}}};

/// The lock files of attempts are small, and are never removed while anybody may still hold one.
bool is_attempt_lock(const fs::path& entry) {
  constexpr std::string_view extension = ".lock";
  constexpr std::size_t nonce_bytes = 32;
  const std::string name = path_utf8(entry.filename());
  if (name.size() != nonce_bytes + extension.size() || !name.ends_with(extension)) return false;
  const bool nonce =
      name.find_first_not_of("0123456789abcdef") == nonce_bytes;  // The dot ends the number.
  return nonce && type_at(entry) == fs::file_type::regular;
}

std::size_t count_entries(const fs::path& folder, bool without_attempt_locks) {
  const auto entries =
      folder_entries(folder, store_entries, "Directory entry count exceeds bounds");
  return entries.size() - (without_attempt_locks
                               ? std::count_if(entries.begin(), entries.end(), is_attempt_lock)
                               : 0);
}

/// As signed; empty when only the longer digest is signed.
std::string signed_sha256(const json& description) {
  return description.at("hashes").value("sha256", std::string());
}

json skipped(std::string_view reason) { return {{"staged", false}, {"skipped", reason}}; }

json already_current(const std::string& build_id) {
  return {{"staged", false}, {"already_current", true}, {"build_id", build_id}};
}

/// A release as its descriptor tells it, and as the store names it.
struct Release {
  std::string descriptor;
  LauncherManifest manifest;
  LauncherReference reference;

  static Release parse(std::string descriptor) {
    auto manifest = LauncherManifest::parse(parse_json(descriptor, launcher_descriptor_bytes));
    LauncherReference reference{digest(descriptor, "sha256"), manifest.build_id, {}};
    return {std::move(descriptor), std::move(manifest), std::move(reference)};
  }
};

/// One run, under the owner lock.
class Staging {
 public:
  Staging(const LauncherStore& store, TufClient& tuf, const Progress& progress,
          const StagingPhase& phase)
      : store_(store),
        tuf_(tuf),
        progress_(progress),
        phase_(phase),
        downloads_(store.directory()),
        record_(store.record()) {}

  json run(bool optional) {
    if (optional) {
      auto answer = reason_to_skip();
      if (!answer.is_null()) return answer;
    }
    require_ready();
    const Release release = fetch_descriptor();
    const json archive = authorized_archive(release);
    if (is_selected(release)) return keep_current(release);
    require_place(release);
    fetch_archive(release, archive);
    publish(release);
    return select(release);
  }

 private:
  fs::path child(std::string_view relative) const {
    return safe_join(store_.directory(), relative, true);
  }

  void tell(std::string_view name, bool counts_bytes) const {
    if (phase_) phase_(name, counts_bytes);
  }

  // Before anything is fetched.

  /// The published descriptor's digest; nothing when none is published.
  std::optional<std::string> published_digest() {
    const auto description = tuf_.find_target(launcher_manifest_target(native_platform()));
    if (!description) return std::nullopt;
    return signed_sha256(*description);
  }

  /// The answer of a check in passing that has nothing to stage; null when it goes on.
  json reason_to_skip() {
    if (!record_.active) return skipped("not_installed");
    if (stands(child("cleanup.json"))) return skipped("cleanup_pending");
    if (record_.attempt) return skipped("startup_pending");
    const auto published = published_digest();
    if (!published) return skipped("not_published");
    if (*published == record_.active->manifest_sha256)
      return already_current(record_.active->build_id);
    if (record_.candidate) return skipped("candidate_pending");
    const auto& failed = record_.failed_candidate;
    if (failed && failed->reference && *published == failed->reference->manifest_sha256)
      return skipped("failed_before");
    return nullptr;
  }

  void require_ready() const {
    require(!stands(child("cleanup.json")), "launcher_cleanup_pending",
            "Finish the recorded Tavro cleanup before staging another update", {cleanup_command});
    require(!record_.attempt, "busy",
            "A launcher startup must finish before another update is staged");
    // A receipt that nobody can explain ends the run before any request.
    advising(store_.root(), child("download-intents"),
             [&] { launcher_download_receipts(store_.directory()); });
  }

  // Budgets

  void require_budget(unsigned long long extra) const {
    const auto used = tree_bytes(store_.directory(), store_entries);
    require(used <= store_bytes && extra <= store_bytes - used, storage_full,
            "Launcher updates exceed their private storage budget");
    for (const auto& bound : record_bounds) {
      const bool attempts = bound.folder == "leases/attempts";
      require(count_entries(child(bound.folder), attempts) <= bound.entries, storage_full,
              "Retained launcher records reached their bounded capacity", {cleanup_command});
    }
  }

  /// Before a target of `length` bytes is taken, of which `expanded` more are made.
  void admit(unsigned long long length, unsigned long long expanded,
             const DownloadAdmission& admission) const {
    require(admission.size <= length, storage_full, "Existing download exceeds its signed budget");
    const auto missing = admission.complete ? 0 : length - admission.size;
    require_budget(storage_sum::add(storage_sum::add(expanded, missing), document_margin));
    const bool new_slot = !admission.complete && !admission.partial;
    require(!new_slot || count_entries(child("downloads"), false) < new_download_entries,
            storage_full, "A new target needs bounded partial/checkpoint slots", {cleanup_command});
  }

  // The descriptor

  fs::path download(const std::string& target, const json& reference,
                    std::function<void(const DownloadAdmission&)> admission) {
    TufDownloadOptions options;
    options.resume_scope = launcher_download_resume_scope(target, reference);
    options.admission = std::move(admission);
    return tuf_.download(target, child("downloads"), progress_,
                         downloads_.observer(target, reference), std::move(options));
  }

  Release fetch_descriptor() {
    tell("verifying", true);
    require_budget(0);
    const std::string target = launcher_manifest_target(native_platform());
    const auto bytes = length(tuf_.target(target));
    require(bytes <= launcher_descriptor_bytes, "size_limit",
            "Launcher descriptor exceeds 512 KiB");
    const fs::path file = download(
        target, nullptr, [&](const DownloadAdmission& admission) { admit(bytes, 0, admission); });
    auto release = Release::parse(read_file(file, launcher_descriptor_bytes));
    require(release.manifest.platform == native_platform(), "launcher_incompatible",
            "Launcher payload targets another native platform");
    return release;
  }

  /// The archive, which the repository itself must sign as the descriptor declares it.
  json authorized_archive(const Release& release) {
    const json archive = tuf_.target(release.manifest.archive_target);
    require(length(archive) == release.manifest.archive_length &&
                signed_sha256(archive) == release.manifest.archive_sha256,
            "content_mismatch", "Launcher archive is not authorized with its declared length/hash");
    return archive;
  }

  /// Whether the release is the active one. One build identifier never names two contents.
  bool is_selected(const Release& release) const {
    for (const auto* selected : {&record_.active, &record_.rollback, &record_.candidate}) {
      if (!*selected || (*selected)->build_id != release.manifest.build_id) continue;
      require(**selected == release.reference, "launcher_build_conflict",
              "An installed launcher build ID has different signed content");
    }
    return record_.active == release.reference;
  }

  /// A version that lies there damaged is for a repair: an update never replaces what may run.
  void prove(const Release& release, const fs::path& payload) const {
    advising(store_.root(), payload,
             [&] { verify_snapshot_tree(release.manifest, payload, progress_); });
  }

  json keep_current(const Release& release) {
    prove(release, store_.payload(release.reference));
    downloads_.retire(release.reference.to_json());
    return already_current(release.manifest.build_id);
  }

  // The payload

  void require_place(const Release& release) const {
    require(!record_.candidate || record_.candidate == release.reference, "launcher_pending",
            "Start the pending launcher candidate before staging a different build");
    const fs::path payload = store_.payload(release.reference);
    require_path_room(store_.root(), payload, release.manifest.longest_native_path());
    const bool room = count_entries(child("versions"), false) < version_entries;
    require(room || stands(payload), storage_full,
            "Retained launcher versions reached their bounded capacity", {cleanup_command});
  }

  void fetch_archive(const Release& release, const json& archive) {
    require_budget(0);
    tell("downloading", true);
    download(release.manifest.archive_target, release.reference.to_json(),
             [&](const DownloadAdmission& admission) {
               admit(length(archive), release.manifest.expanded_length, admission);
               const auto volume = inspect_storage_volume(store_.directory());
               require_install_storage(
                   plan_install_storage(release.manifest, volume, admission.complete,
                                        admission.allocated, admission.partial),
                   "launcher");
             });
  }

  void keep_descriptor(const Release& release) const {
    const fs::path path = child("manifests/" + release.reference.manifest_sha256 + ".json");
    if (!stands(path)) {
      atomic_create(path, release.descriptor);
      return;
    }
    advising(store_.root(), path, [&] {
      require(read_file(path, launcher_descriptor_bytes) == release.descriptor, "content_mismatch",
              "Immutable launcher descriptor changed");
    });
  }

  void publish(const Release& release) {
    keep_descriptor(release);
    // The stored descriptor is what the retirement proves the receipts against.
    downloads_.retire(release.reference.to_json());
    const fs::path payload = store_.payload(release.reference);
    if (stands(payload))
      prove(release, payload);
    else
      extract(release, payload);
  }

  void extract(const Release& release, const fs::path& payload) const {
    tell("staging", true);
    const std::string nonce = random_id();
    const fs::path intent = child("intents/" + nonce + ".json");
    const fs::path tree = child("staging/" + nonce);
    atomic_create(intent, StagingIntent{nonce, release.reference}.to_json().dump());
    extract_snapshot(release.manifest, child("downloads/" + release.manifest.archive_target), tree,
                     progress_);
    native_files::rename_replace(tree, payload);
    // Both ends of the move are durable before the intent that would explain its beginning goes.
    sync_directory(tree.parent_path());
    sync_directory(payload.parent_path());
    native_files::remove_or_trash(intent, {});
    sync_directory(intent.parent_path());
  }

  json select(const Release& release) {
    tell("activating", false);
    record_.candidate = release.reference;
    record_.failed_candidate.reset();
    store_.save(record_);
    return {{"staged", true},
            {"activated", false},
            {"build_id", release.manifest.build_id},
            {"manifest_sha256", release.reference.manifest_sha256}};
  }

  const LauncherStore& store_;
  TufClient& tuf_;
  const Progress& progress_;
  const StagingPhase& phase_;
  LauncherDownloads downloads_;
  LauncherRecord record_;
};

}  // namespace

json LauncherStore::stage(TufClient& tuf, const Progress& progress, const StagingPhase& phase,
                          bool optional) {
  const auto lock = owner();
  return advising(root_, [&] { return Staging(*this, tuf, progress, phase).run(optional); });
}

}  // namespace tavro
