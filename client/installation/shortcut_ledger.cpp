#include "installation/shortcut_ledger.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <system_error>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "installation/menu_icon.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/path_identity.h"
#include "platform/files/running_files.h"
#include "platform/host/native_platform.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t ledger_bytes = 262144;
constexpr std::size_t shortcut_bytes = 65536;
constexpr std::size_t max_shortcuts = 128;

using Entries = std::vector<OwnedShortcut>;

fs::path ledger_path(const fs::path& root) { return root / "native" / "shortcuts.json"; }

FileLock ledger_lock(const fs::path& root) {
  return {root / "native" / "shortcuts.lock", true, LockMode::exclusive};
}

OwnedShortcut parse_entry(const json& value) {
  OwnedShortcut entry;
  entry.path = value.at("path").get<std::string>();
  entry.game = value.at("game").get<std::string>();
  entry.name = value.at("name").get<std::string>();
  entry.sha256 = value.at("sha256").get<std::string>();
  shortcut_place::absolute(path_from_utf8(entry.path));
  return entry;
}

Entries parse_ledger(const json& document, const std::string& path) {
  const bool supported =
      document.at("schema_version") == 1 && document.at("kind") == "tavro-shortcuts" &&
      document.at("entries").is_array() && document.at("entries").size() <= max_shortcuts;
  require(supported, "shortcut_ledger", [&] { return "Unsupported shortcut list " + path; });
  Entries entries;
  for (const auto& value : document.at("entries")) entries.push_back(parse_entry(value));
  return entries;
}

Entries read_ledger(const fs::path& root) {
  const fs::path path = ledger_path(root);
  if (!shortcut_place::is_taken(path)) return {};
  const std::string text = read_file(path, ledger_bytes);
  const std::string malformed = "Shortcut list is malformed: " + path_utf8(path);
  json document;
  try {
    document = parse_json(text, ledger_bytes);
  } catch (const Error&) {
    fail("shortcut_ledger", malformed);
  }
  return read_fields("shortcut_ledger", malformed,
                     [&] { return parse_ledger(document, path_utf8(path)); });
}

void write_ledger(const fs::path& root, const Entries& entries) {
  json listed = json::array();
  for (const auto& entry : entries)
    listed.push_back({{"path", entry.path},
                      {"game", entry.game},
                      {"name", entry.name},
                      {"sha256", entry.sha256}});
  const json document = {
      {"schema_version", 1}, {"kind", "tavro-shortcuts"}, {"entries", std::move(listed)}};
  const std::string text = document.dump();
  // Paths may be so long that a list of the permitted count could never be read again.
  require(text.size() <= ledger_bytes, "size_limit", "Too many recorded shortcuts");
  atomic_write(ledger_path(root), text);
}

bool unchanged(const OwnedShortcut& entry) {
  const fs::path path = path_from_utf8(entry.path);
  std::error_code ignored;
  return fs::is_regular_file(fs::symlink_status(path, ignored)) &&
         digest(read_file(path, shortcut_bytes), "sha256") == entry.sha256;
}

OwnedShortcut create_recorded(DesktopShortcut shortcut, const fs::path& path) {
  shortcut.icon = menu_icon(shortcut.data_root);
  create_native_shortcut(shortcut, path);
  return {path_utf8(path), shortcut.game, shortcut.name,
          digest(read_file(path, shortcut_bytes), "sha256")};
}

/// Best effort: nothing would ever remove a shortcut that the ledger does not know.
void take_back(const OwnedShortcut& entry) noexcept {
  try {
    if (unchanged(entry)) native_files::remove_or_trash(path_from_utf8(entry.path), {});
  } catch (const std::exception&) {
    // The failure that led here is what counts.
    return;
  }
}

json creation_document(const DesktopShortcut& shortcut, const fs::path& path, bool created) {
  return {{"schema_version", 1},
          {"created", created},
          {"path", path_utf8(path)},
          {"game_id", shortcut.game}};
}

void require_outside(const fs::path& target, const fs::path& root) {
  const bool inside = path_identity::at_or_below(path_identity::path_key(target),
                                                 path_identity::directory_key(root));
  require(!inside, "shortcut_path", "Shortcuts must be outside the data folder");
}

}  // namespace

json create_owned_native_shortcut(const DesktopShortcut& shortcut, const fs::path& path) {
  const fs::path root = shortcut_place::absolute(shortcut.data_root);
  require_complete_native_install(root);
  const fs::path target = shortcut_place::absolute(path);
  require_outside(target, root);
  const FileLock lock = ledger_lock(root);
  // An uninstall may have begun while the lock was waited for; it would not see this shortcut.
  require_complete_native_install(root);
  Entries entries = read_ledger(root);
  const auto found = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
    return entry.path == path_utf8(target);
  });
  const bool recorded = found != entries.end();
  if (recorded && unchanged(*found)) return creation_document(shortcut, target, false);
  require(recorded || entries.size() < max_shortcuts, "size_limit", "Too many recorded shortcuts");
  const OwnedShortcut created = create_recorded(shortcut, target);
  if (recorded)
    *found = created;
  else
    entries.push_back(created);
  try {
    write_ledger(root, entries);
  } catch (const std::exception&) {
    take_back(created);
    throw;
  }
  return creation_document(shortcut, target, true);
}

Entries owned_native_shortcuts(const fs::path& root) { return read_ledger(root); }

ShortcutRemoval remove_owned_native_shortcuts(const fs::path& root) {
  ShortcutRemoval result;
  std::error_code ignored;
  // One behind a link is refused by the lock, so that nobody takes its shortcuts for removed.
  if (!fs::is_directory(root / "native", ignored)) return result;
  const FileLock lock = ledger_lock(root);
  for (const auto& entry : read_ledger(root)) {
    const fs::path path = path_from_utf8(entry.path);
    if (!shortcut_place::is_taken(path)) continue;
    if (unchanged(entry)) {
      native_files::remove_or_trash(path, {});
      result.removed.push_back(path);
    } else {
      result.changed.push_back(path);
    }
  }
  write_ledger(root, {});
  return result;
}

std::vector<fs::path> restore_owned_native_shortcuts(const fs::path& root,
                                                     const fs::path& executable) {
  const FileLock lock = ledger_lock(root);
  Entries entries = read_ledger(root);
  // The shortcuts that still stand show it too, and it may be missing or of an earlier brand.
  if (!entries.empty()) menu_icon(root);
  std::vector<fs::path> restored;
  std::exception_ptr failure;
  for (auto& entry : entries) {
    const fs::path path = path_from_utf8(entry.path);
    if (shortcut_place::is_taken(path)) continue;
    try {
      entry = create_recorded({executable, root, entry.game, entry.name}, path);
    } catch (const std::exception&) {
      failure = std::current_exception();
      break;
    }
    restored.push_back(path);
  }
  // Also after a failure: what was brought back has other bytes than those on record.
  write_ledger(root, entries);
  if (failure) std::rethrow_exception(failure);
  return restored;
}

}  // namespace tavro
