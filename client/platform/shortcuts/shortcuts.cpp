#include "platform/shortcuts/shortcuts.h"

#include <nlohmann/json.hpp>

#include <system_error>

#include "domain/error.h"
#include "platform/files/durable_files.h"
#include "platform/host/host.h"
#include "platform/shortcuts/desktop_entry.h"
#include "platform/shortcuts/launch_document.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

bool has_desktop_entries() { return host::shortcut_form() == host::ShortcutForm::desktop_entry; }

/// No component may be a link, not even the system's own, and each must be a directory. A last one
/// that goes missing meanwhile is left to the creation.
void require_plain_directories(const fs::path& folder) {
  fs::path walked = folder.root_path();
  for (const auto& component : folder.relative_path()) {
    walked /= component;
    std::error_code ignored;
    const auto type = fs::symlink_status(walked, ignored).type();
    require(type != fs::file_type::symlink, "unsafe_path",
            "Shortcut path contains a symbolic link");
    if (type == fs::file_type::not_found && walked == folder) return;
    require(type == fs::file_type::directory, "shortcut_path",
            "Shortcut paths need existing plain files and directories");
  }
}

}  // namespace

std::string_view native_shortcut_extension() noexcept {
  return has_desktop_entries() ? kDesktopEntryExtension : kLaunchDocumentExtension;
}

fs::path native_menu_directory() {
  return has_desktop_entries() ? linux_menu_directory() : macos_menu_directory();
}

fs::path native_menu_entry(const fs::path& root, std::string_view game, std::string_view) {
  if (has_desktop_entries()) return linux_menu_entry(root, game);
  const std::string name = shortcut_place::entry_name(root, game, kLaunchDocumentExtension);
  return shortcut_place::absolute(native_menu_directory() / name);
}

std::string native_shortcut_text(const DesktopShortcut& shortcut) {
  return has_desktop_entries() ? linux_desktop_entry(shortcut) : macos_launch_document(shortcut);
}

std::optional<DesktopShortcut> read_native_shortcut(std::string_view text) {
  if (has_desktop_entries()) return read_linux_desktop_entry(text);
  try {
    return parse_macos_launch_document(text);
  } catch (const Error&) {
    return std::nullopt;
  }
}

void require_native_shortcut_place(const fs::path& path) {
  const fs::path parent = shortcut_place::absolute(path).parent_path();
  if (shortcut_place::is_taken(parent)) {
    require_plain_directories(parent);
  } else {
    require(parent == native_menu_directory(), "shortcut_path",
            "Custom shortcut destinations require an existing parent directory");
    private_directory(parent);
  }
}

json create_native_shortcut(const DesktopShortcut& shortcut, const fs::path& path) {
  require_native_shortcut_place(path);
  return has_desktop_entries() ? create_linux_desktop_entry(shortcut, path)
                               : create_macos_launch_document(shortcut, path);
}

}  // namespace tavro
