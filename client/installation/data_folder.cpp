#include "installation/data_folder.h"

#include <nlohmann/json.hpp>

#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "platform/host/native_platform.h"

namespace tavro {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t folder_path_bytes = 4096;
constexpr std::size_t folder_entries = 250000;
constexpr std::size_t environment_bytes = 8192;

fs::path absolute_environment_path(std::string_view key) {
  const std::string value = process_environment(key, environment_bytes);
  const fs::path path = path_from_utf8(value);
  return path.is_absolute() ? path : fs::path();
}

/// A relative path needs a working folder, which may be gone.
fs::path absolute_path(const fs::path& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  require(!error, "unsafe_path",
          "The working folder is gone or closed; name the data folder by its absolute path");
  return absolute.lexically_normal();
}

/// A folder that nobody may look into cannot be told from an empty one.
void require_open(const fs::path& root) {
  for (const auto& name : {root, root / "native"}) {
    std::error_code error;
    (void)fs::symlink_status(name, error);
    require(error != std::errc::permission_denied, "permissions", [&] {
      return "No permission to enter the data folder " + path_utf8(root) +
             "; open it to this user or choose another one with --data-dir";
    });
  }
}

}  // namespace

fs::path user_data_root() {
  // The desktop's rule: a relative path in this variable counts as none.
  const fs::path chosen = absolute_environment_path("XDG_DATA_HOME");
  if (!chosen.empty()) return chosen / "Tavro";
  const fs::path home = absolute_environment_path("HOME");
  require(!home.empty(), "user_path", "HOME must identify an absolute user directory");
  return home / ".local/share/Tavro";
}

DataPaths::DataPaths(const fs::path& folder)
    : root(folder),
      native(root / "native"),
      incomplete_marker(root / incomplete_marker_name),
      setup_lock(root / ".tavro-setup.lock"),
      bootstrap_lock(root / ".native-bootstrap.lock"),
      installation(native / "installation.json"),
      setup_status(native / "setup-status.json"),
      bootstrap(native / "bootstrap"),
      bootstrap_manifest(native / "bootstrap.json"),
      staging(native / "staging"),
      launcher(root / "launcher"),
      trust(root / "trust"),
      repository(root / "repository.json"),
      repository_ca(root / "repository-ca.pem") {}

fs::path theme_directory(const fs::path& root) { return root / "native" / "theme"; }

fs::path data_folder(const fs::path& path) {
  const std::string text = path_utf8(path);
  require(!text.empty() && text.size() <= folder_path_bytes && text.find('\0') == text.npos,
          "unsafe_path", "Choose a data folder");
  fs::path root = absolute_path(path);
  require(root != root.root_path() && root.has_filename(), "unsafe_path",
          "The data folder cannot be a filesystem root");
  std::error_code ignored;
  require(!fs::is_symlink(fs::symlink_status(root, ignored)), "unsafe_path",
          "The data folder cannot be a symbolic link");
  require_open(root);
  return root;
}

bool within(const fs::path& child, const fs::path& parent) {
  const fs::path relative = child.lexically_relative(parent);
  return !relative.empty() && *relative.begin() != "..";
}

bool stands(const fs::path& path) noexcept {
  std::error_code ignored;
  return fs::exists(fs::symlink_status(path, ignored));
}

std::vector<fs::path> children(const fs::path& folder) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    require(entries.size() < folder_entries, "size_limit", "Directory entry count exceeds bounds");
    entries.push_back(entry->path());
  }
  require(!error, "file_read", [&] {
    return "Cannot list the folder " + path_utf8(folder) + ": " + error.message() +
           "; give it to this user alone and try again";
  });
  return entries;
}

json path_array(const std::vector<fs::path>& paths) {
  json texts = json::array();
  for (const auto& path : paths) texts.push_back(path_utf8(path));
  return texts;
}

void require_installed(bool installed, const fs::path& root) {
  require(installed, "not_installed",
          [&] { return branded("Tavro is not installed in ") + path_utf8(root); });
}

}  // namespace tavro
