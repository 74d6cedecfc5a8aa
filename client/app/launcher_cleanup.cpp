#include "app/launcher_cleanup.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "app/data_folder.h"
#include "app/download_receipt.h"
#include "app/launcher_bootstrap.h"
#include "app/launcher_download.h"
#include "app/launcher_record.h"
#include "app/launcher_store.h"
#include "app/torn_write.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "platform/files.h"
#include "platform/native_files.h"
#include "platform/native_platform.h"
#include "platform/tree.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t hash_characters = 64;
constexpr std::size_t nonce_characters = 32;
constexpr unsigned long tree_entries = 65536;
constexpr std::size_t record_bytes = 4096;

constexpr std::string_view unknown_file = "The store does not know this file";
constexpr std::string_view in_use = "It is in use";

const json& cleanup_record() {
  static const json record = {{"schema_version", 1}, {"kind", "tavro-launcher-cleanup"}};
  return record;
}

bool is_file(const fs::path& path) {
  std::error_code ignored;
  return fs::symlink_status(path, ignored).type() == fs::file_type::regular;
}

bool is_folder(const fs::path& path) {
  std::error_code ignored;
  return fs::symlink_status(path, ignored).type() == fs::file_type::directory;
}

/// The lower-case hexadecimal number of `characters` with which a file name begins, if `rest`
/// follows it; empty otherwise.
std::string leading_id(const fs::path& path, std::size_t characters, std::string_view rest) {
  const std::string name = path_utf8(path.filename());
  const bool whole = name.size() == characters + rest.size() && name.ends_with(rest) &&
                     is_lower_hex(std::string_view(name).substr(0, characters), characters);
  return whole ? name.substr(0, characters) : std::string();
}

/// What an atomic write that was cut off left of the document `name`; an empty name has none.
bool is_unfinished_write(const fs::path& path, std::string_view name) {
  return !name.empty() && torn_write::is_temporary_name(path_utf8(path.filename()), name) &&
         is_file(path);
}

/// Whether something failed to be written or removed, or nothing more is wanted. All other
/// failures only say that a thing could not be explained.
bool ends_the_cleanup(std::string_view code) {
  constexpr std::array<std::string_view, 5> codes = {"cancelled", "file_remove", "file_sync",
                                                     "file_write", "insufficient_space"};
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

/// One walk through the store, under its owner lock.
class Cleanup {
 public:
  Cleanup(const LauncherStore& store, CleanupMode mode, const std::function<bool()>& cancelled)
      : store_(store), performs_(mode == CleanupMode::perform), cancelled_(cancelled) {
    const json record = store_.load();
    for (const char* key : {"active", "rollback", "candidate"}) select(record.at(key));
    if (!can_start(record.at("active")) && !can_start(record.at("rollback"))) select_fallback();
    const json& attempt = record.at("attempt");
    if (attempt.is_null()) return;
    select(attempt.at("reference"));
    open_attempt_ = attempt.at("nonce").get<std::string>();
  }

  CleanupReport run() {
    const fs::path record = child("cleanup.json");
    require_known(record);
    if (performs_) atomic_write(record, cleanup_record().dump());
    // Downloads first: the descriptors explain them.
    clean_downloads();
    clean_intents();
    clean_versions();
    clean_descriptors();
    clean_startups();
    for (const auto& entry : children(store_.directory()))
      if (is_unfinished_write(entry, "installation.json") ||
          is_unfinished_write(entry, "cleanup.json"))
        drop("unfinished_write", entry);
    if (performs_) remove_durably(record);
    return std::move(report_);
  }

 private:
  fs::path child(const std::string& relative) const {
    return safe_join(store_.directory(), relative, true);
  }

  void select(const json& reference) {
    if (!reference.is_null()) selected_.insert(reference.at("manifest_sha256").get<std::string>());
  }

  bool can_start(const json& reference) const {
    if (reference.is_null()) return false;
    try {
      const auto manifest = store_.manifest(reference);
      for (const char* interface : {"cli", "gui"})
        present_entry(store_, reference, manifest, interface);
      return true;
    } catch (const Error&) {
      return false;
    }
  }

  /// What a bootstrap starts when it can start nothing that the record names.
  void select_fallback() {
    try {
      select(store_.fallback_active());
    } catch (const Error& error) {
      if (error.code != "launcher_missing") throw;
    }
  }

  static void require_known(const fs::path& record) {
    if (!stands(record)) return;
    const std::string text = read_file(record, record_bytes);
    require(text == cleanup_record().dump(), "unsupported_schema",
            "Unknown launcher cleanup was preserved");
  }

  // Removing

  void require_wanted() const {
    require(!cancelled_ || !cancelled_(), "cancelled", "Cleanup was cancelled");
  }

  static void remove_durably(const fs::path& path) {
    native_files::remove_or_trash(path, {});
    sync_directory(path.parent_path());
  }

  void keep(const fs::path& path, std::string_view reason) {
    report_.kept.push_back({path, std::string(reason)});
  }

  /// Cleans one thing of the store. What cannot be explained there stays, and ends nothing else:
  /// otherwise a single file would keep updates away for ever.
  template <typename Work>
  void consider(const fs::path& path, Work&& work) {
    try {
      work();
    } catch (const Error& error) {
      if (ends_the_cleanup(error.code)) throw;
      keep(path, error.code == "busy" ? in_use : error.what());
    }
  }

  /// Removes one file, or a folder that is empty by then.
  void drop(std::string_view kind, const fs::path& path) {
    require_wanted();
    taken_.insert(path);
    report_.removed.push_back({std::string(kind), path, is_file(path) ? fs::file_size(path) : 0});
    if (performs_) remove_durably(path);
  }

  // Downloads

  void clean_downloads() {
    std::map<std::string, json> groups;
    try {
      groups = launcher_download_receipts(store_.directory());
    } catch (const Error& error) {
      // One that cannot be explained may own any of the files, and be explained later.
      keep(child("download-intents"), error.what());
      keeps_downloads_ = true;
      return;
    }
    for (const auto& group : groups)
      consider(child(download_receipt_path(group.first)), [&] { clean_group(group.second); });
    clean_unpacked();
    consider(child("downloads"), [&] { clean_other_downloads(); });
  }

  /// The receipt goes last: until then it explains the others.
  void clean_group(const json& group) {
    const json& receipt = group.at("receipt");
    if (!receipt.is_null()) {
      const auto& temporary = text_member(receipt, "temporary");
      const fs::path partial = download(temporary);
      if (!partial.empty()) drop("download", partial);
      for (const json& file : group.at("resume_files"))
        drop("download_record", child("downloads/" + text_member(file, "name")));
      drop_verified(text_member(receipt, "target"), receipt.at("authorization"));
      const fs::path place = child("downloads/" + temporary);
      if (stands(place) && !taken_.contains(place)) return;
    }
    for (const json& file : group.at("files"))
      drop("download_record", child("download-intents/" + text_member(file, "name")));
  }

  /// The file of this name; empty when none is left, or something else lies there.
  fs::path download(const std::string& name) const {
    try {
      fs::path path = child("downloads/" + name);
      return is_file(path) && !taken_.contains(path) ? path : fs::path();
    } catch (const Error&) {
      return {};
    }
  }

  void drop_verified(const std::string& target, const json& description) {
    const fs::path path = download(target);
    if (!path.empty() && verifies(path, description)) drop("download", path);
  }

  static bool verifies(const fs::path& path, const json& description) {
    try {
      verify_target_file(path, description, {});
      return true;
    } catch (const Error&) {
      return false;
    }
  }

  /// Downloads whose receipts were retired are explained by a stored descriptor.
  void clean_unpacked() {
    const auto described = [](unsigned long long length, const std::string& sha256) {
      return json{{"length", length}, {"hashes", {{"sha256", sha256}}}};
    };
    for (const auto& entry : children(child("manifests"))) {
      const auto manifest = stored_manifest(entry);
      if (!manifest) continue;
      drop_verified(launcher_manifest_target(native_platform()),
                    described(fs::file_size(entry), leading_id(entry, hash_characters, ".json")));
      drop_verified(manifest->archive_target,
                    described(manifest->archive_length, manifest->archive_sha256));
    }
  }

  /// What is left has no owner; the folders that only downloads made go once they are empty.
  void clean_other_downloads() {
    std::vector<fs::path> entries;
    walk_tree(
        child("downloads"), tree_entries, "The store holds too many downloads",
        [&](const fs::directory_entry& entry, std::string_view) { entries.push_back(entry); });
    std::set<fs::path> occupied;
    // From the end, since a folder comes before what it holds.
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
      if (taken_.contains(*entry)) continue;
      if (is_folder(*entry) && !occupied.contains(*entry)) {
        drop("download_folder", *entry);
        continue;
      }
      if (!is_folder(*entry)) keep(*entry, unknown_file);
      occupied.insert(entry->parent_path());
    }
  }

  // Versions, descriptors and stagings

  /// The descriptor of this file, if it is the one that its name promises.
  std::optional<LauncherManifest> stored_manifest(const fs::path& path) const {
    const std::string name = leading_id(path, hash_characters, ".json");
    if (name.empty()) return std::nullopt;
    try {
      const std::string text = read_file(path, launcher_descriptor_bytes);
      if (digest(text, "sha256") != name) return std::nullopt;
      return LauncherManifest::parse(parse_json(text, launcher_descriptor_bytes));
    } catch (const Error&) {
      return std::nullopt;
    }
  }

  void clean_intents() {
    for (const auto& intent : children(child("intents")))
      consider(intent, [&] { clean_intent(intent); });
    for (const auto& tree : children(child("staging")))
      if (!taken_.contains(tree) && stands(tree)) keep(tree, "No record of the store explains it");
  }

  void clean_intent(const fs::path& intent) {
    const std::string nonce = leading_id(intent, nonce_characters, ".json");
    if (!nonce.empty() && is_file(intent) && fs::file_size(intent) <= staging_intent_bytes &&
        is_staging_intent(read_file(intent, staging_intent_bytes), nonce))
      clean_staging(child("staging/" + nonce), intent);
    else if (is_unfinished_write(intent, name_before_write(intent, nonce_characters)))
      drop("unfinished_write", intent);
    else
      keep(intent, unknown_file);
  }

  /// "<id>.json" of an unfinished write of a document that is named by an ID; empty otherwise.
  static std::string name_before_write(const fs::path& path, std::size_t characters) {
    const std::string name = path_utf8(path.filename()).substr(0, characters + 5);
    return leading_id(name, characters, ".json").empty() ? std::string() : name;
  }

  void clean_staging(const fs::path& tree, const fs::path& intent) {
    require_wanted();
    taken_.insert(tree);
    consider(tree, [&] {
      const auto bytes = tree_bytes(tree, tree_entries);
      if (stands(tree)) report_.removed.push_back({"staging", tree, bytes});
      if (!performs_) return;
      remove_plain_tree(tree);
      remove_durably(intent);
    });
  }

  void clean_versions() {
    for (const auto& tree : children(child("versions"))) {
      const std::string name = leading_id(tree, hash_characters, "");
      if (!selected_.contains(name)) consider(tree, [&] { clean_version(tree, name); });
    }
  }

  void clean_version(const fs::path& tree, const std::string& name) {
    const fs::path descriptor = child("manifests/" + name + ".json");
    const auto manifest = is_folder(tree) ? stored_manifest(descriptor) : std::nullopt;
    if (!manifest) return keep(tree, "No descriptor of the store explains it");
    const json reference = {{"manifest_sha256", name}, {"build_id", manifest->build_id}};
    const auto guard = store_.version_guard(reference, LockMode::exclusive);
    if (!holds_only(*manifest, tree))
      return keep(tree, "It holds files that are not of this version");
    require_wanted();
    report_.removed.push_back({"version", tree, tree_bytes(tree, tree_entries)});
    if (!keeps_downloads_) taken_.insert(descriptor);
    if (performs_) retire(tree, descriptor, reference);
  }

  static bool holds_only(const LauncherManifest& manifest, const fs::path& tree) {
    bool only = true;
    walk_tree(tree, tree_entries, "The version holds too many files",
              [&](const fs::directory_entry& entry, std::string_view relative) {
                if (!fs::is_directory(entry.symlink_status()))
                  only = only && manifest.files.contains(std::string(relative));
              });
    return only;
  }

  /// A version never lies there in part, where a start could find it: in one step it becomes what a
  /// staging leaves behind, and goes as such.
  void retire(const fs::path& tree, const fs::path& descriptor, const json& reference) {
    const std::string nonce = random_id();
    const fs::path intent = child("intents/" + nonce + ".json");
    const fs::path aside = child("staging/" + nonce);
    atomic_create(intent, staging_intent(nonce, reference).dump());
    native_files::rename_replace(tree, aside);
    sync_directory(tree.parent_path());
    sync_directory(aside.parent_path());
    remove_plain_tree(aside);
    remove_durably(intent);
    if (taken_.contains(descriptor)) remove_durably(descriptor);
  }

  void clean_descriptors() {
    for (const auto& path : children(child("manifests"))) {
      const std::string name = leading_id(path, hash_characters, ".json");
      if (!selected_.contains(name) && !taken_.contains(path))
        consider(path, [&] { clean_descriptor(path, name); });
    }
  }

  void clean_descriptor(const fs::path& path, const std::string& name) {
    if (is_unfinished_write(path, name_before_write(path, hash_characters)))
      drop("unfinished_write", path);
    else if (!stored_manifest(path))
      keep(path, unknown_file);
    else if (!keeps_downloads_ && !stands(child("versions/" + name)))
      drop("descriptor", path);
  }

  // Starts

  void clean_startups() {
    std::map<std::string, std::vector<fs::path>> starts;
    const std::array<fs::path, 2> folders = {child("health"), child("leases/attempts")};
    for (const auto& folder : folders)
      for (const auto& path : children(folder)) {
        const std::string nonce = path_utf8(path.filename()).substr(0, nonce_characters);
        if (is_startup_file(path, nonce))
          starts[nonce].push_back(path);
        else
          keep(path, unknown_file);
      }
    starts.erase(open_attempt_);
    for (const auto& start : starts) {
      const fs::path lock = folders[1] / (start.first + ".lock");
      consider(lock, [&] { clean_startup(lock, start.second); });
    }
  }

  bool is_startup_file(const fs::path& path, const std::string& nonce) const {
    if (!is_lower_hex(nonce, nonce_characters) || !is_file(path)) return false;
    return path.filename() == nonce + ".json" || is_unfinished_write(path, nonce + ".json") ||
           path == child("leases/attempts/" + nonce + ".lock");
  }

  /// No later start takes this nonce again, so that here, and only here, a lock file may go.
  void clean_startup(const fs::path& lock, const std::vector<fs::path>& files) {
    std::optional<FileLock> held;
    if (stands(lock)) held.emplace(lock, false, LockMode::exclusive);
    for (const auto& path : files)
      if (path != lock) drop("startup_record", path);
    if (held) drop("startup_record", lock);
  }

  const LauncherStore& store_;
  const bool performs_;
  const std::function<bool()>& cancelled_;
  /// Digests of the versions that the record names, and the nonce of an open attempt.
  std::set<std::string> selected_;
  std::string open_attempt_;
  /// The downloads stay, and with them the descriptors that explain them.
  bool keeps_downloads_ = false;
  /// What this walk has taken, or would have.
  std::set<fs::path> taken_;
  CleanupReport report_;
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
