#include "platform/shortcuts/desktop_entry.h"

#include <nlohmann/json.hpp>

#include <vector>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "platform/files/safe_path.h"
#include "platform/host/host.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t name_bytes = 512;
constexpr std::size_t environment_bytes = 8192;

constexpr shortcut_place::Sentences sentences{
    kDesktopEntryExtension,
    "Desktop entries must end in .desktop",
    "Desktop entries must be outside application data",
    "Desktop entries must be outside managed launcher payloads",
    "Desktop-entry destination already exists; it was preserved",
};

void require_desktop(std::string_view message) {
  require(host::shortcut_form() == host::ShortcutForm::desktop_entry, "unsupported_platform",
          message);
}

/// A value of type string: readers take blanks off its beginning and backslashes for escapes.
std::string string_value(std::string_view text) {
  std::string value;
  for (const char character : text) {
    if (character == '\\') value += '\\';
    if (character == ' ' && value.empty())
      value += "\\s";
    else
      value += character;
  }
  return value;
}

/// The text that `string_value` has made such a value of.
std::string value_text(std::string_view value) {
  std::string text;
  if (value.starts_with("\\s")) {
    text = " ";
    value.remove_prefix(2);
  }
  for (std::size_t at = 0; at < value.size(); ++at) {
    if (value[at] == '\\' && at + 1 < value.size()) ++at;
    text += value[at];
  }
  return text;
}

/// The value of a key, which stands at the beginning of a line; empty without one.
std::string entry_value(std::string_view text, std::string_view key) {
  const std::string start = "\n" + std::string(key) + "=";
  const std::size_t found = text.find(start);
  if (found == text.npos) return {};
  const std::string_view value = text.substr(found + start.size());
  return value_text(value.substr(0, value.find('\n')));
}

/// One argument as a command line takes it. Quotes never hurt, so that only what plainly needs none
/// goes without.
std::string argument(std::string_view text) {
  constexpr std::string_view plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
  if (text.find_first_not_of(plain) == text.npos) return std::string(text);
  std::string quoted = "\"";
  for (const char character : text) {
    if (std::string_view("\"`$\\").find(character) != std::string_view::npos) quoted += '\\';
    // Field codes begin with this character even between quotes.
    if (character == '%') quoted += '%';
    quoted += character;
  }
  return quoted + '"';
}

std::vector<std::string> command(const DesktopShortcut& shortcut) {
  const std::string executable = path_utf8(shortcut.executable);
  std::vector<std::string> words = {executable};
  // The name of a program may not hold "=", and some desktops look for it before they undo "%%";
  // for an argument neither matters.
  if (executable.find_first_of("=%") != executable.npos)
    words = {"/bin/sh", "-c", R"(exec "$0" "$@")", executable};
  // An image in a data folder serves that folder and takes no other.
  const auto inside = shortcut.executable.lexically_relative(shortcut.data_root);
  if (inside.empty() || *inside.begin() == "..")
    words.insert(words.end(), {"--data-dir", path_utf8(shortcut.data_root)});
  words.emplace_back("--gui");
  if (!shortcut.game.empty()) words.insert(words.end(), {"--launch", shortcut.game});
  return words;
}

std::string command_line(const std::vector<std::string>& words) {
  std::string line;
  for (const auto& word : words) line += (line.empty() ? "" : " ") + argument(word);
  return line;
}

/// A relative path in these variables counts as none.
fs::path absolute_value(std::string_view value) {
  const fs::path path = path_from_utf8(value);
  return path.is_absolute() ? path.lexically_normal() : fs::path();
}

}  // namespace

std::string linux_desktop_entry(const DesktopShortcut& shortcut) {
  require_desktop("Linux desktop entries require a Linux native build");
  shortcut_place::below_root(shortcut.executable);
  shortcut_place::below_root(shortcut.data_root);
  shortcut_place::require_text(shortcut.name, name_bytes);
  if (!shortcut.game.empty()) validate_identifier(shortcut.game);
  if (!shortcut.icon.empty()) shortcut_place::below_root(shortcut.icon);
  const std::string icon = shortcut.icon.empty() ? "applications-games" : path_utf8(shortcut.icon);

  std::string text = "[Desktop Entry]\nType=Application\nVersion=1.0\n";
  const auto add = [&](std::string_view key, std::string_view value) {
    text.append(key).append("=").append(string_value(value)).append("\n");
  };
  add("Name", shortcut.name);
  add("Icon", icon);
  add("Exec", command_line(command(shortcut)));
  // Without its program the entry is not shown.
  add("TryExec", path_utf8(shortcut.executable));
  add("Terminal", "false");
  add("StartupNotify", "true");
  add("Categories", "Game;");
  return text;
}

std::optional<DesktopShortcut> read_linux_desktop_entry(std::string_view text) {
  DesktopShortcut shortcut;
  // No path of ours holds a NUL byte, and no text of ours either.
  if (text.find('\0') != text.npos) return std::nullopt;
  shortcut.executable = entry_value(text, "TryExec");
  shortcut.name = entry_value(text, "Name");
  shortcut.icon = entry_value(text, "Icon");
  if (!shortcut.icon.is_absolute()) shortcut.icon.clear();
  if (shortcut.executable.empty() || shortcut.name.empty()) return std::nullopt;
  return shortcut;
}

json create_linux_desktop_entry(const DesktopShortcut& shortcut, const fs::path& path) {
  const std::string text = linux_desktop_entry(shortcut);
  shortcut_place::require_free(shortcut, path, sentences);
  return shortcut_place::create(shortcut, path, text);
}

fs::path linux_menu_directory(std::string_view xdg_data_home, std::string_view home) {
  require_desktop("Application menu creation requires Linux");
  fs::path data = absolute_value(xdg_data_home);
  if (data.empty()) {
    const fs::path user = absolute_value(home);
    require(!user.empty(), "user_path", "Cannot locate the user's application menu");
    data = user / ".local/share";
  }
  // A home behind a link of the system is that user's home all the same.
  return shortcut_place::absolute(resolve_system_links(data / "applications"));
}

fs::path linux_menu_directory() {
  return linux_menu_directory(process_environment("XDG_DATA_HOME", environment_bytes),
                              process_environment("HOME", environment_bytes));
}

fs::path linux_menu_entry(const fs::path& root, std::string_view game) {
  if (!game.empty()) validate_identifier(game);
  require(!root.empty(), "shortcut_path", "Application menu entry needs its selected profile");
  const std::string name = shortcut_place::entry_name(root, game, kDesktopEntryExtension);
  return shortcut_place::absolute(linux_menu_directory() / name);
}

}  // namespace tavro
