#include "launcher/store_repair.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/relative_path.h"
#include "installation/data_folder.h"
#include "installation/own_files.h"
#include "installation/repair_advice.h"
#include "launcher/launcher_download.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"
#include "platform/files/folder_access.h"
#include "platform/files/managed_tree.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long tree_entries = 250000;
constexpr char too_many[] = "Directory entry count exceeds bounds";
constexpr std::size_t digest_characters = 64;

/// The digest that a version or a descriptor has for its name; empty for any other name.
std::string digest_of(const fs::path& path, std::string_view extension) {
  const std::string name = path_utf8(path.filename());
  const bool fits = name.ends_with(extension) &&
                    is_lower_hex(name.substr(0, name.size() - extension.size()), digest_characters);
  return fits ? name.substr(0, digest_characters) : std::string();
}

class StoreRepair {
 public:
  explicit StoreRepair(const fs::path& root) : root_(root), directory_(DataPaths(root).launcher) {}

  std::vector<std::string> run() {
    for (const auto folder : launcher_folders) clear_place(folder);
    const LauncherStore store(root_);
    const auto owner = store.owner();
    auto record = store.record();
    const auto& selected = record.active ? record.active : record.candidate;
    selected_ = selected ? selected->manifest_sha256 : std::string();
    set_strangers_aside();
    prove_downloads();
    prove_descriptors();
    prove_versions();
    if (forget(record, store)) store.save(record);
    return std::move(done_);
  }

 private:
  void set_aside(const fs::path& path, std::string_view why) {
    const fs::path aside = set_aside_from_store(root_, path);
    done_.push_back(path_utf8(path) + std::string(why) + " and was set aside as " +
                    path_utf8(aside));
  }

  /// Also on the way to a folder: behind a link lies what is not this store's.
  void clear_place(const fs::path& folder) {
    fs::path path = directory_;
    for (const auto& name : folder) {
      path /= name;
      const auto type = type_at(path);
      if (type == fs::file_type::not_found) return;
      if (type != fs::file_type::directory) return set_aside(path, " is no folder");
    }
  }

  /// What no budget of the store accepts. A version is proved as a whole.
  void set_strangers_aside() {
    const fs::path versions = directory_ / "versions";
    std::vector<fs::path> found;
    walk_tree(directory_, tree_entries, too_many, [&](const auto& entry, auto relative) {
      const fs::path& path = entry.path();
      const bool of_version = path.parent_path() != versions && within(path, versions);
      // What lies in a folder that goes, goes with it.
      const bool inside = !found.empty() && within(path, found.back());
      if (!of_version && !inside && is_stranger(entry, relative)) found.push_back(path);
    });
    for (const auto& path : found) set_aside(path, " is nothing that belongs there");
  }

  static bool is_stranger(const fs::directory_entry& entry, std::string_view relative) {
    const auto type = entry.symlink_status().type();
    if (type != fs::file_type::directory && type != fs::file_type::regular) return true;
    try {
      validate_relative_path(relative, true);
      return false;
    } catch (const Error&) {
      return true;
    }
  }

  /// Downloads are only fetched in advance: what cannot be explained makes room for new ones.
  void prove_downloads() {
    try {
      launcher_download_receipts(directory_);
    } catch (const Error& error) {
      if (error.code == "crypto_failure") throw;
      for (const auto* folder : {"download-intents", "downloads"}) {
        set_aside(directory_ / folder, " cannot be explained");
        private_directory(directory_ / folder);
      }
    }
  }

  std::vector<fs::path> entries(std::string_view folder) const {
    auto found = folder_entries(directory_ / folder, tree_entries, too_many);
    std::sort(found.begin(), found.end());
    return found;
  }

  void prove_descriptors() {
    for (const auto& path : entries("manifests")) {
      const std::string name = digest_of(path, ".json");
      if (name.empty() || name == selected_ || proves_descriptor(path, name)) continue;
      set_aside(path, " is not the descriptor that its name says");
    }
  }

  static bool proves_descriptor(const fs::path& path, const std::string& name) {
    try {
      return digest(read_file(path, launcher_descriptor_bytes), "sha256") == name;
    } catch (const Error& error) {
      if (says_nothing(error, path)) throw;
      return false;
    }
  }

  void prove_versions() {
    for (const auto& path : entries("versions")) {
      const std::string name = digest_of(path, "");
      if (name.empty() || name == selected_ || proves_version(path, name)) continue;
      set_aside(path, " is not what its descriptor says");
    }
  }

  /// Without a descriptor, that nothing in it is in the way; the next one proves the rest.
  bool proves_version(const fs::path& path, const std::string& name) const {
    try {
      const auto manifest = descriptor(name);
      if (manifest)
        verify_snapshot_tree(*manifest, path);
      else
        tree_bytes(path, tree_entries);
      return true;
    } catch (const Error& error) {
      if (error.code == "crypto_failure") throw;
      return false;
    }
  }

  std::optional<LauncherManifest> descriptor(const std::string& name) const {
    const fs::path path = directory_ / "manifests" / (name + ".json");
    if (!stands(path)) return std::nullopt;
    return LauncherManifest::parse(
        parse_json(read_file(path, launcher_descriptor_bytes), launcher_descriptor_bytes));
  }

  /// Whether the record named a version that is not there any more, as a whole.
  bool forget(LauncherRecord& record, const LauncherStore& store) {
    bool forgotten = false;
    for (auto* named : {&record.rollback, &record.candidate}) {
      if (!*named || (*named)->manifest_sha256 == selected_ || is_whole(**named, store)) continue;
      done_.push_back("launcher build " + (*named)->build_id + " is no longer tried");
      named->reset();
      forgotten = true;
    }
    return forgotten;
  }

  static bool is_whole(const LauncherReference& reference, const LauncherStore& store) {
    try {
      store.manifest(reference);
      return stands(store.payload(reference));
    } catch (const Error& error) {
      if (error.code == "crypto_failure") throw;
      return false;
    }
  }

  const fs::path root_;
  const fs::path directory_;
  /// Digest of the version that is proved already; empty when there is none.
  std::string selected_;
  std::vector<std::string> done_;
};

}  // namespace

std::vector<std::string> mend_launcher_store(const fs::path& root) {
  return advising(root, [&] { return StoreRepair(root).run(); });
}

}  // namespace tavro
