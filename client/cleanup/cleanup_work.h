#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "cleanup/launcher_cleanup.h"
#include "documents/launcher_contract.h"

namespace tavro {

/// One cleanup of a launcher store under way: how a thing there is removed or left, and what has
/// become of it so far. The caller holds the owner lock of the store.
class CleanupWork {
 public:
  /// `directory` is the store's own. `cancelled` may be empty.
  CleanupWork(std::filesystem::path directory, CleanupMode mode, std::function<bool()> cancelled);

  /// False for a plan, which only tells.
  bool performs() const { return performs_; }
  const std::filesystem::path& directory() const { return directory_; }
  /// As `safe_join`.
  std::filesystem::path child(std::string_view relative) const;

  /// Throws `cancelled` once nothing more is wanted; asked between two items.
  void require_wanted() const;

  /// Does what one thing needs. What cannot be explained there, or belongs to somebody else, stays
  /// with the failure as the reason and ends nothing else, since a single file would otherwise keep
  /// updates away for ever: false. Only what fails to be written or removed passes on, and
  /// `cancelled`.
  bool consider(const std::filesystem::path& path, const std::function<void()>& work);

  /// Removes one file, or a folder that is empty by then, durably.
  void drop(std::string_view kind, const std::filesystem::path& path);

  /// Tells of something that the caller has removed, or would have.
  void tell(std::string_view kind, const std::filesystem::path& path, unsigned long long bytes);
  /// Tells of something that stays.
  void keep(const std::filesystem::path& path, std::string_view reason);

  /// Counts the path as gone, or explained; `drop` does so by itself.
  void take(const std::filesystem::path& path) { taken_.insert(path); }
  bool took(const std::filesystem::path& path) const { return taken_.contains(path); }

  CleanupReport& report() { return report_; }

 private:
  std::filesystem::path directory_;
  bool performs_;
  std::function<bool()> cancelled_;
  /// What this walk has taken, or would have.
  std::set<std::filesystem::path> taken_;
  CleanupReport report_;
};

/// Entries of a tree of the store, at most.
inline constexpr unsigned long cleanup_tree_entries = 65536;
/// Why something stays that bears no name of the store's.
inline constexpr std::string_view unknown_store_file = "The store does not know this file";

/// Characters of the digest by which the store names a version and its descriptor.
inline constexpr std::size_t digest_characters = 64;

/// What is looked at without following links; what cannot be looked at is neither.
bool is_file(const std::filesystem::path& path);
bool is_folder(const std::filesystem::path& path);

/// Removes one file or empty folder, and syncs where it lay. Throws `file_remove`, `file_sync`.
void remove_durably(const std::filesystem::path& path);

/// The lower-case hexadecimal number of `characters` with which a file name begins, if `rest`
/// follows it; empty otherwise.
std::string leading_id(const std::filesystem::path& path, std::size_t characters,
                       std::string_view rest);

/// The stored descriptor of this file, if it is the one that its name promises.
std::optional<LauncherManifest> stored_descriptor(const std::filesystem::path& path);

}  // namespace tavro
