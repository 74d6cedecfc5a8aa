#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "documents/launcher_contract.h"
#include "domain/json.h"
#include "domain/progress.h"
#include "launcher/launcher_record.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// A data folder as the disk knows it: absolute, links resolved. Throws `unsafe_path` when a
/// component is a link again by the time it is looked at.
std::filesystem::path ordinary_root(const std::filesystem::path& path);

class TufClient;

/// The folders of a store, below its own, in the order in which they are made.
inline constexpr std::array<std::string_view, 9> launcher_folders = {
    "versions", "manifests", "downloads",       "download-intents", "staging",
    "intents",  "health",    "leases/versions", "leases/attempts"};

/// Told the name of each phase of a staging, and whether its progress counts bytes.
using StagingPhase = std::function<void(std::string_view name, bool counts_bytes)>;

/// The failure that ended a candidate's start.
struct StartupCause {
  /// Of the `Error`; empty for another failure.
  std::string code;
  std::string sentence;
};

/// Marks the constructor that creates nothing.
struct ExistingStore {};
/// Marks the constructor that touches nothing.
struct LaunchView {};

/// The version store of launcher releases in one data folder: immutable payload trees side by side,
/// named by the SHA-256 of their signed descriptors, and one record that says which one is active,
/// which one the rollback, which one waits to be tried. It keeps nothing of the record in memory.
///
/// A record or a directory that the store does not understand is preserved: no failure changes or
/// removes a file. Record codes: `launcher_state` for a damaged one, `unsupported_schema` for
/// another version's, and what `read_file` and `parse_json` throw. A failure that lies with a file
/// of the store names it, and the repair that mends it.
class LauncherStore {
 public:
  /// Creates what is missing of the store in the data folder `root` and proves that its record can
  /// be read. Throws `native_install_incomplete` while setup has not finished there, unless
  /// `staged_install` says that the caller is that setup.
  explicit LauncherStore(const std::filesystem::path& root, bool staged_install = false);
  LauncherStore(const std::filesystem::path& root, ExistingStore tag);
  LauncherStore(const std::filesystem::path& root, LaunchView tag);

  /// The store of an installed client, for readers: creates nothing, throws when it is not there.
  static std::unique_ptr<LauncherStore> existing(const std::filesystem::path& root);
  /// The view of a process that only reads and starts; only a finished setup is required.
  static std::unique_ptr<LauncherStore> for_launch(const std::filesystem::path& root);

  /// The data folder, absolute and free of links.
  const std::filesystem::path& root() const noexcept { return root_; }
  /// The child `launcher` of the data folder, which holds everything of the store.
  const std::filesystem::path& directory() const noexcept { return directory_; }

  // The record and the versions. What takes or gives a `json` is the same for a caller outside this
  // client: a reference or null, an attempt or null, or the record as it is stored.

  /// The record, proved; that of generation 0 when none was ever saved.
  LauncherRecord record() const;
  json load() const { return record().to_json(); }
  /// The record, or nothing when it is damaged or another version's. Other failures pass.
  std::optional<LauncherRecord> usable_record() const;
  std::optional<json> selection() const;
  /// The record with the further key `installed`: there is an active version.
  json status() const;

  /// Replaces the record durably, with its generation raised by one. The caller holds `owner()`.
  /// Throws `launcher_state` when the generation is used up, `size_limit` above 32768 bytes; the
  /// old record then stands.
  void save(const LauncherRecord& record) const { save(record.to_json()); }
  void save(json state) const;

  /// The descriptor of a version, proved against the reference. Throws `launcher_missing` for a
  /// null reference, `content_mismatch`, `launcher_state`, and what the manifest readers throw.
  LauncherManifest manifest(const LauncherReference& reference) const;
  LauncherManifest manifest(const json& reference) const;
  /// Where the payload of a version lies; nothing is checked there. Throws `launcher_missing`.
  std::filesystem::path payload(const LauncherReference& reference) const;
  std::filesystem::path payload(const json& reference) const;
  /// The newest version on disk with a proved descriptor, whatever the record says. Its payload is
  /// not verified. Throws `launcher_missing`, or `launcher_state` above 64 entries.
  LauncherReference newest_version() const;
  json fallback_active() const { return newest_version().to_json(); }

  /// The lock that serialises every change of the record. Waits up to 2 seconds, then `busy`. A
  /// lock file that is not as the store makes it is `lock_failed`, here and below, and named.
  std::unique_ptr<FileLock> owner() const;
  /// The lease of a version: shared by what runs from it, exclusive to retire it. Never waits.
  /// Throws `busy`, `launcher_missing`, and for an exclusive lease `launcher_recovery_uncertain`
  /// when the version's contract cannot be read.
  std::unique_ptr<FileLock> version_guard(const LauncherReference& reference, LockMode mode) const;
  std::unique_ptr<FileLock> version_guard(const json& reference, LockMode mode) const;

  /// Places the first launcher into a new store as its candidate and returns the reference.
  /// `manifest_text` is the exact descriptor, `archive` its verified archive. `progress` (may be
  /// empty) gets bytes done and total of extraction and verification; false cancels. Throws
  /// `already_installed` for a store that is not new, `launcher_incompatible` for another platform,
  /// `insufficient_space`, and what extraction throws. A failure leaves what was written; the
  /// caller discards the unfinished folder.
  json seed_initial(std::string_view manifest_text, const std::filesystem::path& archive,
                    const Progress& progress = {});

  /// Brings the published release in and records it as the candidate, under the owner lock to the
  /// end, network time included. What is active and the rollback stay, and nothing of the release
  /// runs until a bootstrap tries it; after any failure the record is as it was, and what was
  /// downloaded is gone on with by the next run.
  ///
  /// With `optional` false every obstacle is an error, and a release that failed before is tried
  /// again. With true an ordinary reason not to update is an answer: an object of `staged` false
  /// and `skipped`, one of "not_installed", "cleanup_pending", "startup_pending", "not_published",
  /// "candidate_pending", "failed_before". Other answers: `staged` false, `already_current` true
  /// and `build_id`; or `staged` true, `activated` false, `build_id` and `manifest_sha256`.
  ///
  /// `progress` as in `TufClient::download`, and for each proof of a tree. `phase` (may be empty)
  /// is told "verifying", "downloading", "staging" (each with true) and "activating" (with false)
  /// as far as they come.
  ///
  /// Throws `launcher_cleanup_pending`, `busy`, `launcher_download_uncertain` (a record of a
  /// download that cannot be explained), `launcher_storage_full`, `insufficient_space`,
  /// `size_limit`, `launcher_incompatible`, `content_mismatch`, `launcher_build_conflict`,
  /// `launcher_pending`, `cancelled`, and what the client and the extraction throw.
  json stage(TufClient& tuf, const Progress& progress, const StagingPhase& phase, bool optional);

  // The probation of a candidate. What changes the record needs the caller to hold `owner()`. A
  // malformed nonce is `launcher_state`.

  /// The attempt lease: shared by whoever keeps the attempt alive.
  std::filesystem::path startup_lease_path(const LauncherAttempt& attempt) const;
  std::filesystem::path startup_lease_path(const json& attempt) const;
  /// The same, taken. Never waits.
  std::unique_ptr<FileLock> attempt_lease(const LauncherAttempt& attempt, LockMode mode) const;
  /// The started launcher's word that it holds its leases.
  std::filesystem::path startup_ack_path(const LauncherAttempt& attempt) const;
  std::filesystem::path startup_ack_path(const json& attempt) const;
  /// The started launcher's word that it is ready.
  std::filesystem::path health_path(const LauncherAttempt& attempt) const;
  std::filesystem::path health_path(const json& attempt) const;
  /// The variables of `launcher_startup_variables` for a start in this attempt. Throws
  /// `launcher_interface`.
  std::map<std::string, std::string> health_environment(const LauncherAttempt& attempt,
                                                        std::string_view interface) const;
  std::map<std::string, std::string> health_environment(const json& attempt,
                                                        std::string_view interface) const;

  /// Records an attempt that nobody holds any more as "startup_interrupted"; without an attempt
  /// nothing happens. Throws `launcher_running` while a process still lives on it.
  void recover_attempt();
  /// Moves the candidate into a new attempt, which is on disk before this returns; nothing when
  /// none waits. Throws `busy` while an attempt is open.
  std::optional<LauncherAttempt> begin_attempt();
  json begin_candidate();
  /// Makes the attempt's version the active one and the active one the rollback, if all of the
  /// proof holds for the process `pid`, which the caller started itself: `health`, the
  /// acknowledgement and the whole payload. Throws `launcher_health`, `launcher_state`,
  /// `launcher_lease`, and what `manifest` and `verify_snapshot_tree` throw; the attempt then stays
  /// open.
  void confirm_candidate(const LauncherAttempt& attempt, const json& health, unsigned long long pid,
                         std::string_view interface);
  void confirm_candidate(const json& attempt, const json& health, unsigned long long pid,
                         std::string_view interface);
  /// Closes the attempt as failed; what is active stays. `problem` is 1 to 80 characters of a-z,
  /// 0-9, '_' and '-'. The cause is kept beside it, its sentence cut at 512 bytes. Throws
  /// `launcher_state`.
  void reject_candidate(const LauncherAttempt& attempt, std::string_view problem,
                        const StartupCause& cause = {});
  void reject_candidate(const json& attempt, std::string_view problem);

 private:
  struct Paths {};
  /// Only computes the paths.
  LauncherStore(const std::filesystem::path& root, Paths tag);

  std::filesystem::path child(std::string_view relative) const;
  /// The record, in which exactly this attempt is open; else `launcher_state`.
  LauncherRecord record_with(const json& attempt) const;
  /// By the stored descriptor of this name, which is not proved.
  LauncherReference stored_reference(const std::string& name) const;
  /// A lock of the store, whose failures name it and say what mends it.
  std::unique_ptr<FileLock> lock(const std::filesystem::path& path, LockMode mode) const;

  std::filesystem::path root_;
  std::filesystem::path directory_;
};

/// The entry point of a version, which is there and has its length; no digest is computed. Throws
/// `launcher_damaged`, or what `safe_join` throws.
std::filesystem::path present_entry(const LauncherStore& store, const LauncherReference& reference,
                                    const LauncherManifest& manifest, std::string_view interface);

}  // namespace tavro
