#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Top-level names of a data folder that belong to the player and that only `--remove-data` takes.
inline constexpr std::array<std::string_view, 2> player_data = {"userdata", "settings.json"};
/// A folder that holds any of these at its top counts as an earlier data folder.
inline constexpr std::array<std::string_view, 4> known_entries = {"native", "launcher", "userdata",
                                                                  "settings.json"};

/// The default data folder of this user, from the environment alone; it is neither created nor
/// looked at. Throws `user_path`.
std::filesystem::path user_data_root();

/// Where everything of one installation lies; plain path arithmetic, nothing is looked at.
struct DataPaths {
  /// `root` comes from `data_folder`.
  explicit DataPaths(const std::filesystem::path& root);

  std::filesystem::path root;
  /// The installer's own folder.
  std::filesystem::path native;
  /// Stands while an install, a repair or an uninstall changes the folder; never read.
  std::filesystem::path incomplete_marker;
  std::filesystem::path setup_lock;
  std::filesystem::path bootstrap_lock;
  std::filesystem::path installation;
  std::filesystem::path setup_status;
  std::filesystem::path bootstrap;
  /// The snapshot manifest of `bootstrap`, byte for byte as its package carried it.
  std::filesystem::path bootstrap_manifest;
  /// All work in progress; belongs to the holder of `setup_lock`.
  std::filesystem::path staging;
  std::filesystem::path launcher;
  std::filesystem::path trust;
  std::filesystem::path repository;
  std::filesystem::path repository_ca;
};

/// Where an installation keeps the theme of its brand.
std::filesystem::path theme_directory(const std::filesystem::path& root);

/// Proves that `path` can be a data folder and returns it absolute and lexically normal; it need
/// not exist. Throws `unsafe_path` for a text that is not 1 to 4096 bytes without NUL, for a
/// filesystem root, for a path that ends in a separator, for a symbolic link, and for a relative
/// path without a working folder; `permissions` for a folder that this user may not enter.
std::filesystem::path data_folder(const std::filesystem::path& path);

/// Whether `child` lies in `parent` or equals it. Lexical: the disk is not asked.
bool within(const std::filesystem::path& child, const std::filesystem::path& parent);

/// Whether anything stands at the path, links not followed. What cannot be examined counts as
/// absent, so that this never throws.
bool stands(const std::filesystem::path& path) noexcept;

/// The entries of a folder, in the order of the walk. Throws `size_limit` beyond 250000 of them and
/// `file_read` when the folder cannot be listed.
std::vector<std::filesystem::path> children(const std::filesystem::path& folder);

/// The paths as UTF-8 texts.
json path_array(const std::vector<std::filesystem::path>& paths);

/// Fails with `not_installed`, which names the folder, unless `installed` holds.
void require_installed(bool installed, const std::filesystem::path& root);

}  // namespace tavro
