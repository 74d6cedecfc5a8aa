#include "installation/shortcut_ledger.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/ledger_file.h"
#include "installation/menu_icon.h"
#include "platform/files/path_identity.h"
#include "platform/files/running_files.h"
#include "platform/host/native_platform.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using ledger_file::Entries;

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

/// The entry of a path, which is appended if there is none.
OwnedShortcut& entry_at(Entries& entries, const std::string& path) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const auto& entry) { return entry.path == path; });
  if (found != entries.end()) return *found;
  require(entries.size() < ledger_file::max_shortcuts, "size_limit", "Too many recorded shortcuts");
  entries.push_back({path, {}, {}, {}});
  return entries.back();
}

/// Best effort: an entry without its file harms nothing, and the failure is what counts.
void write_quietly(const fs::path& root, const Entries& entries) noexcept {
  try {
    ledger_file::write(root, entries);
  } catch (const std::exception&) {
    return;
  }
}

/// False when the very file stands there already.
bool create_or_adopt(const DesktopShortcut& shortcut, const fs::path& path, std::string_view text) {
  ledger_file::remove_leftovers(path);
  try {
    create_native_shortcut(shortcut, path);
    return true;
  } catch (const Error& error) {
    if (error.code != "already_exists" || !ledger_file::holds(path, text)) throw;
    return false;
  }
}

/// What a removal came to.
struct Outcome {
  ShortcutRemoval removal;
  /// What could not be read or removed, and the first failure of these.
  Entries left;
  std::exception_ptr failure;
};

/// One that fails does not keep the others.
Outcome remove_entries(const Entries& entries) {
  Outcome outcome;
  for (const auto& entry : entries) {
    const fs::path path = path_from_utf8(entry.path);
    try {
      ledger_file::remove_leftovers(path);
      if (!shortcut_place::is_taken(path)) continue;
      const bool ours = ledger_file::remove_unchanged(entry);
      (ours ? outcome.removal.removed : outcome.removal.changed).push_back(path);
    } catch (const std::exception&) {
      if (!outcome.failure) outcome.failure = std::current_exception();
      outcome.left.push_back(entry);
    }
  }
  return outcome;
}

bool has_native_folder(const fs::path& root) {
  std::error_code ignored;
  // One behind a link is refused by the lock, so that nobody takes its shortcuts for removed.
  return fs::is_directory(root / "native", ignored);
}

}  // namespace

json create_owned_native_shortcut(const DesktopShortcut& request, const fs::path& path) {
  const fs::path root = shortcut_place::absolute(request.data_root);
  require_complete_native_install(root);
  const fs::path target = shortcut_place::absolute(path);
  require_outside(target, root);
  const FileLock lock = ledger_file::lock(root);
  // An uninstall may have begun while the lock was waited for; it would not see this shortcut.
  require_complete_native_install(root);
  const Entries before = ledger_file::read(root);
  Entries entries = before;
  OwnedShortcut& entry = entry_at(entries, path_utf8(target));
  if (!entry.sha256.empty() && ledger_file::unchanged(entry))
    return creation_document(request, target, false);

  require_native_shortcut_place(target);
  DesktopShortcut shortcut = request;
  shortcut.icon = menu_icon(root);
  const std::string text = native_shortcut_text(shortcut);
  entry = ledger_file::entry_of(shortcut, target, text);
  // The entry comes first: a crash may leave an entry without its file, which a repair brings back,
  // but never a file that nobody owns.
  ledger_file::write(root, entries);
  try {
    return creation_document(shortcut, target, create_or_adopt(shortcut, target, text));
  } catch (const std::exception&) {
    write_quietly(root, before);
    throw;
  }
}

Entries owned_native_shortcuts(const fs::path& root) { return ledger_file::read(root); }

ShortcutRemoval remove_owned_native_shortcuts(const fs::path& root) {
  if (!has_native_folder(root)) return {};
  const FileLock lock = ledger_file::lock(root);
  const Outcome outcome = remove_entries(ledger_file::read(root));
  ledger_file::write(root, outcome.left);
  if (outcome.failure) std::rethrow_exception(outcome.failure);
  return outcome.removal;
}

ShortcutRemoval release_owned_native_shortcuts(const fs::path& root) {
  if (!has_native_folder(root)) return {};
  const FileLock lock = ledger_file::lock(root);
  Outcome outcome = remove_entries(ledger_file::read(root));
  for (const auto& entry : outcome.left)
    outcome.removal.changed.push_back(path_from_utf8(entry.path));
  return outcome.removal;
}

std::vector<fs::path> restore_owned_native_shortcuts(const fs::path& root,
                                                     const fs::path& executable) {
  const FileLock lock = ledger_file::lock(root);
  Entries entries = ledger_file::read(root);
  // The shortcuts that still stand show it too, and it may be missing or of an earlier brand.
  const fs::path icon = entries.empty() ? fs::path() : menu_icon(root);
  std::vector<std::pair<DesktopShortcut, fs::path>> missing;
  std::exception_ptr failure;
  const auto guarded = [&](const auto& step) {
    try {
      step();
    } catch (const std::exception&) {
      if (!failure) failure = std::current_exception();
    }
  };
  for (auto& entry : entries) {
    const fs::path path = path_from_utf8(entry.path);
    if (shortcut_place::is_taken(path)) continue;
    guarded([&] {
      const DesktopShortcut shortcut{executable, root, entry.game, entry.name, icon};
      entry = ledger_file::entry_of(shortcut, path, native_shortcut_text(shortcut));
      missing.emplace_back(shortcut, path);
    });
  }
  // Before the files, which may have other bytes than those on record.
  ledger_file::write(root, entries);
  std::vector<fs::path> restored;
  for (const auto& [shortcut, path] : missing)
    guarded([&, &shortcut = shortcut, &path = path] {
      ledger_file::remove_leftovers(path);
      create_native_shortcut(shortcut, path);
      restored.push_back(path);
    });
  if (failure) std::rethrow_exception(failure);
  return restored;
}

}  // namespace tavro
