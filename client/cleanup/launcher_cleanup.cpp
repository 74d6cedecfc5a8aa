#include "cleanup/launcher_cleanup.h"

#include <nlohmann/json.hpp>

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "cleanup/cleanup_work.h"
#include "cleanup/download_cleanup.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/torn_write.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t nonce_characters = 32;
constexpr std::size_t record_bytes = 4096;

const json& cleanup_record() {
  static const json record = {{"schema_version", 1}, {"kind", "tavro-launcher-cleanup"}};
  return record;
}

/// What an atomic write that was cut off left of the document `name`; an empty name has none.
bool is_unfinished_write(const fs::path& path, std::string_view name) {
  return !name.empty() && torn_write::is_temporary_name(path_utf8(path.filename()), name) &&
         is_file(path);
}

/// One walk through the store, under its owner lock.
class Cleanup {
 public:
  Cleanup(const LauncherStore& store, CleanupMode mode, const std::function<bool()>& cancelled)
      : store_(store), work_(store.directory(), mode, cancelled) {
    const LauncherRecord record = store_.record();
    for (const auto* named : {&record.active, &record.rollback, &record.candidate})
      if (*named) select(**named);
    if (!can_start(record.active) && !can_start(record.rollback)) select_fallback();
    if (!record.attempt) return;
    select(record.attempt->reference);
    open_attempt_ = record.attempt->nonce;
  }

  CleanupReport run() {
    const fs::path record = work_.child("cleanup.json");
    require_known(record);
    if (work_.performs()) atomic_write(record, cleanup_record().dump());
    // Downloads first: the descriptors explain them.
    keeps_downloads_ = !clean_downloads(work_);
    clean_intents();
    clean_versions();
    clean_descriptors();
    clean_startups();
    clean_documents();
    if (work_.performs()) remove_durably(record);
    return std::move(work_.report());
  }

 private:
  void select(const LauncherReference& reference) { selected_.insert(reference.manifest_sha256); }

  bool can_start(const std::optional<LauncherReference>& reference) const {
    if (!reference) return false;
    try {
      const auto manifest = store_.manifest(*reference);
      for (const char* interface : {"cli", "gui"})
        present_entry(store_, *reference, manifest, interface);
      return true;
    } catch (const Error&) {
      return false;
    }
  }

  /// What a bootstrap starts when it can start nothing that the record names.
  void select_fallback() {
    try {
      select(store_.newest_version());
    } catch (const Error& error) {
      if (error.code != "launcher_missing") throw;
    }
  }

  static void require_known(const fs::path& record) {
    if (!stands(record)) return;
    const bool known = is_file(record) && fs::file_size(record) <= record_bytes &&
                       read_file(record, record_bytes) == cleanup_record().dump();
    require(known, "unsupported_schema", [&] {
      return "Unknown launcher cleanup was preserved; unless a newer Tavro began it, remove " +
             path_utf8(record) + " and run self cleanup again";
    });
  }

  // Versions, descriptors and stagings

  void clean_intents() {
    for (const auto& intent : children(work_.child("intents")))
      work_.consider(intent, [&] { clean_intent(intent); });
    for (const auto& tree : children(work_.child("staging")))
      if (!work_.took(tree) && stands(tree)) work_.keep(tree, "No record of the store explains it");
  }

  void clean_intent(const fs::path& intent) {
    const std::string nonce = leading_id(intent, nonce_characters, ".json");
    if (!nonce.empty() && is_file(intent) && fs::file_size(intent) <= staging_intent_bytes &&
        is_staging_intent(read_file(intent, staging_intent_bytes), nonce))
      clean_staging(work_.child("staging/" + nonce), intent);
    else if (is_unfinished_write(intent, name_before_write(intent, nonce_characters)))
      work_.drop("unfinished_write", intent);
    else
      work_.keep(intent, unknown_store_file);
  }

  /// "<id>.json" of an unfinished write of a document that is named by an ID; empty otherwise.
  static std::string name_before_write(const fs::path& path, std::size_t characters) {
    const std::string name = path_utf8(path.filename()).substr(0, characters + 5);
    return leading_id(name, characters, ".json").empty() ? std::string() : name;
  }

  void clean_staging(const fs::path& tree, const fs::path& intent) {
    work_.require_wanted();
    work_.take(tree);
    work_.consider(tree, [&] {
      const auto bytes = tree_bytes(tree, cleanup_tree_entries);
      const bool stood = stands(tree);
      if (work_.performs()) {
        remove_plain_tree(tree);
        remove_durably(intent);
      }
      if (stood) work_.tell("staging", tree, bytes);
    });
  }

  void clean_versions() {
    for (const auto& tree : children(work_.child("versions"))) {
      const std::string name = leading_id(tree, digest_characters, "");
      if (!selected_.contains(name)) work_.consider(tree, [&] { clean_version(tree, name); });
    }
  }

  void clean_version(const fs::path& tree, const std::string& name) {
    const fs::path descriptor = work_.child("manifests/" + name + ".json");
    const auto manifest = is_folder(tree) ? stored_descriptor(descriptor) : std::nullopt;
    if (!manifest) return work_.keep(tree, "No descriptor of the store explains it");
    const LauncherReference reference{name, manifest->build_id, {}};
    const auto guard = store_.version_guard(reference, LockMode::exclusive);
    if (!holds_only(*manifest, tree))
      return work_.keep(tree, "It holds files that are not of this version");
    work_.require_wanted();
    const auto bytes = tree_bytes(tree, cleanup_tree_entries);
    if (!keeps_downloads_) work_.take(descriptor);
    if (work_.performs()) retire(tree, descriptor, reference);
    work_.tell("version", tree, bytes);
  }

  static bool holds_only(const LauncherManifest& manifest, const fs::path& tree) {
    bool only = true;
    walk_tree(tree, cleanup_tree_entries, "The version holds too many files",
              [&](const fs::directory_entry& entry, std::string_view relative) {
                if (!fs::is_directory(entry.symlink_status()))
                  only = only && manifest.files.contains(std::string(relative));
              });
    return only;
  }

  /// A version never lies there in part, where a start could find it: in one step it becomes what a
  /// staging leaves behind, and goes as such.
  void retire(const fs::path& tree, const fs::path& descriptor,
              const LauncherReference& reference) {
    const std::string nonce = random_id();
    const fs::path intent = work_.child("intents/" + nonce + ".json");
    const fs::path aside = work_.child("staging/" + nonce);
    atomic_create(intent, StagingIntent{nonce, reference}.to_json().dump());
    native_files::rename_replace(tree, aside);
    sync_directory(tree.parent_path());
    sync_directory(aside.parent_path());
    remove_plain_tree(aside);
    remove_durably(intent);
    if (work_.took(descriptor)) remove_durably(descriptor);
  }

  void clean_descriptors() {
    for (const auto& path : children(work_.child("manifests"))) {
      const std::string name = leading_id(path, digest_characters, ".json");
      if (!selected_.contains(name) && !work_.took(path))
        work_.consider(path, [&] { clean_descriptor(path, name); });
    }
  }

  void clean_descriptor(const fs::path& path, const std::string& name) {
    if (is_unfinished_write(path, name_before_write(path, digest_characters)))
      work_.drop("unfinished_write", path);
    else if (!stored_descriptor(path))
      work_.keep(path, unknown_store_file);
    else if (!keeps_downloads_ && !stands(work_.child("versions/" + name)))
      work_.drop("descriptor", path);
  }

  // Starts

  void clean_startups() {
    std::map<std::string, std::vector<fs::path>> starts;
    const std::array<fs::path, 2> folders = {work_.child("health"), work_.child("leases/attempts")};
    for (const auto& folder : folders)
      for (const auto& path : children(folder)) {
        const std::string nonce = path_utf8(path.filename()).substr(0, nonce_characters);
        if (is_startup_file(path, nonce))
          starts[nonce].push_back(path);
        else
          work_.keep(path, unknown_store_file);
      }
    starts.erase(open_attempt_);
    for (const auto& start : starts) {
      const fs::path lock = folders[1] / (start.first + ".lock");
      work_.consider(lock, [&] { clean_startup(lock, start.second); });
    }
  }

  bool is_startup_file(const fs::path& path, const std::string& nonce) const {
    if (!is_lower_hex(nonce, nonce_characters) || !is_file(path)) return false;
    return path.filename() == nonce + ".json" || is_unfinished_write(path, nonce + ".json") ||
           path == store_.directory() / "leases" / "attempts" / (nonce + ".lock");
  }

  /// No later start takes this nonce again, so that here, and only here, a lock file may go.
  void clean_startup(const fs::path& lock, const std::vector<fs::path>& files) {
    std::optional<FileLock> held;
    if (stands(lock)) held.emplace(lock, false, LockMode::exclusive);
    for (const auto& path : files)
      if (path != lock) work_.drop("startup_record", path);
    if (held) work_.drop("startup_record", lock);
  }

  /// Of the start marker, which no lock guards, the write may be under way: then that start is not
  /// counted, and no more.
  void clean_documents() {
    for (const auto& entry : children(store_.directory()))
      for (const auto* name : {"installation.json", "cleanup.json", "start-attempt.json"})
        if (is_unfinished_write(entry, name)) work_.drop("unfinished_write", entry);
  }

  const LauncherStore& store_;
  CleanupWork work_;
  /// Digests of the versions that the record names, and the nonce of an open attempt.
  std::set<std::string> selected_;
  std::string open_attempt_;
  /// The downloads stay, and with them the descriptors that explain them.
  bool keeps_downloads_ = false;
};

}  // namespace

json CleanupReport::to_json() const {
  json document = {{"schema_version", 1},
                   {"removed", json::array()},
                   {"kept", json::array()},
                   {"freed_bytes", 0}};
  unsigned long long freed = 0;
  for (const auto& item : removed) {
    freed += item.bytes;
    document["removed"].push_back(
        {{"kind", item.kind}, {"path", path_utf8(item.path)}, {"bytes", item.bytes}});
  }
  for (const auto& rest : kept)
    document["kept"].push_back({{"path", path_utf8(rest.path)}, {"reason", rest.reason}});
  document["freed_bytes"] = freed;
  return document;
}

CleanupReport clean_launcher_store(const fs::path& root, CleanupMode mode,
                                   const std::function<bool()>& cancelled) {
  const LauncherStore store(root);
  const auto owner = store.owner();
  return Cleanup(store, mode, cancelled).run();
}

}  // namespace tavro
