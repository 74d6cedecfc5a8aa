#include "installation/shortcut_recovery.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "installation/installed_brand.h"
#include "installation/ledger_file.h"
#include "installation/menu_icon.h"
#include "installation/own_files.h"
#include "platform/files/running_files.h"
#include "platform/shortcuts/shortcut_place.h"
#include "platform/shortcuts/shortcuts.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using ledger_file::Entries;
using ledger_file::ledger_bytes;
using ledger_file::shortcut_bytes;

constexpr std::string_view launcher_suffix = "launcher";
constexpr std::string_view game_prefix = "game-";

/// Whether the failure is the file's own. Any other may be gone the next time.
bool is_damage(const Error& error) {
  constexpr std::array<std::string_view, 6> codes = {"shortcut_ledger", "shortcut_text",
                                                     "shortcut_path",   "size_limit",
                                                     "unsafe_path",     "invalid_json"};
  return std::find(codes.begin(), codes.end(), error.code) != codes.end();
}

/// What `read` answers; `damaged` where the file is.
template <typename Read>
bool unless_damaged(const Read& read, bool damaged) {
  try {
    return read();
  } catch (const Error& error) {
    if (!is_damage(error)) throw;
    return damaged;
  }
}

/// Whether a later version has written the ledger; that version is the one to read it.
bool is_newer(const fs::path& ledger) {
  const auto read = [&] {
    const json document = parse_json(read_file(ledger, ledger_bytes), ledger_bytes);
    if (!document.is_object()) return false;
    const auto version = document.find("schema_version");
    return version != document.end() && version->is_number_integer() && *version > 1;
  };
  return unless_damaged(read, false);
}

bool is_readable(const fs::path& root) {
  return unless_damaged([&] { return ledger_file::read(root), true; }, false);
}

/// What the names of all shortcuts of this data folder begin with.
std::string name_start(const fs::path& root) {
  std::string name = native_menu_entry(root, {}, {}).stem().native();
  name.resize(name.size() - launcher_suffix.size());
  return name;
}

/// The game in the name of a shortcut of this folder, empty for the launcher; nothing for others.
std::optional<std::string> game_of(const fs::path& path, const std::string& start) {
  const std::string name = path.stem().native();
  if (path.extension() != native_shortcut_extension() || !name.starts_with(start))
    return std::nullopt;
  const std::string rest = name.substr(start.size());
  if (rest == launcher_suffix) return std::string();
  if (!rest.starts_with(game_prefix)) return std::nullopt;
  return rest.substr(game_prefix.size());
}

std::optional<DesktopShortcut> read_shortcut(const fs::path& path) {
  try {
    return read_native_shortcut(read_file(path, shortcut_bytes));
  } catch (const Error&) {
    return std::nullopt;
  }
}

/// The entry of a file that has exactly the bytes that this installation writes by itself. What the
/// file says of its name and image counts for nothing: the user may have changed them.
std::optional<OwnedShortcut> proved(const fs::path& path, DesktopShortcut expected) {
  std::vector<std::string> names = {expected.game};
  if (expected.game.empty()) names = {product_name()};
  const auto brand = installed_brand(expected.data_root);
  if (brand && expected.game.empty()) names.push_back(brand->name);
  for (const auto& icon : {expected.icon, fs::path()})
    for (const auto& name : names) {
      expected.name = name;
      expected.icon = icon;
      const std::string text = native_shortcut_text(expected);
      if (ledger_file::holds(path, text)) return ledger_file::entry_of(expected, path, text);
    }
  return std::nullopt;
}

/// The program of an unchanged shortcut that leads out of this folder.
std::optional<fs::path> program_elsewhere(const OwnedShortcut& entry, const fs::path& root) {
  try {
    if (!ledger_file::unchanged(entry)) return std::nullopt;
  } catch (const Error&) {
    return std::nullopt;
  }
  const auto shortcut = read_shortcut(path_from_utf8(entry.path));
  if (!shortcut || within(shortcut->executable, root)) return std::nullopt;
  return shortcut->executable;
}

/// Whether the program is gone with its data folder: what can be looked at, and is not there. A
/// volume that is not mounted says nothing.
bool leads_nowhere(const fs::path& program) {
  const fs::path old_root = program.parent_path().parent_path().parent_path().parent_path();
  std::error_code ignored;
  return fs::symlink_status(program, ignored).type() == fs::file_type::not_found &&
         fs::is_directory(old_root.parent_path(), ignored);
}

/// Whether the user chose the place: it has not the name that the system gives for a data folder.
bool is_chosen_place(const fs::path& path, const std::string& start) {
  return path.parent_path() != native_menu_directory() ||
         !game_of(path, path.stem().native().substr(0, start.size()));
}

/// Whether the shortcut stays where it is, and leads here from now on.
bool keeps_its_place(const OwnedShortcut& entry, const fs::path& program, const fs::path& root) {
  return leads_nowhere(program) && is_chosen_place(path_from_utf8(entry.path), name_start(root));
}

/// Takes such entries out of the ledger, and their files away where they lead nowhere. One that
/// keeps its place only loses its file: what is recorded and missing is brought back.
void release_elsewhere(const fs::path& root) {
  const FileLock lock = ledger_file::lock(root);
  Entries kept;
  for (const auto& entry : ledger_file::read(root)) {
    const auto program = program_elsewhere(entry, root);
    if (!program || keeps_its_place(entry, *program, root)) kept.push_back(entry);
    if (program && leads_nowhere(*program)) ledger_file::remove_unchanged(entry);
  }
  ledger_file::write(root, kept);
}

}  // namespace

std::string set_aside_damaged_ledger(const fs::path& root) {
  const fs::path ledger = ledger_file::path_in(root);
  const FileLock lock = ledger_file::lock(root);
  if (is_readable(root) || is_newer(ledger)) return {};
  return path_utf8(ledger) + " could not be read and was set aside as " +
         path_utf8(set_aside(ledger).filename());
}

std::vector<fs::path> named_for(const fs::path& root) {
  const std::string start = name_start(root);
  std::vector<fs::path> found;
  const fs::path menu = native_menu_directory();
  if (!stands(menu)) return found;
  for (const auto& path : children(menu))
    if (game_of(path, start)) found.push_back(path);
  return found;
}

FoundShortcuts adopt_native_shortcuts(const fs::path& root, const fs::path& executable) {
  FoundShortcuts found;
  const std::string start = name_start(root);
  const std::vector<fs::path> standing = named_for(root);
  if (standing.empty()) return found;
  const FileLock lock = ledger_file::lock(root);
  // A shortcut is recorded before it is made. What this list does not tell of is the user's.
  if (shortcut_place::is_taken(ledger_file::path_in(root))) return found;
  Entries entries;
  const fs::path icon = menu_icon(root);
  for (const auto& path : standing) {
    auto entry = proved(path, {executable, root, *game_of(path, start), {}, icon});
    if (entry && entries.size() < ledger_file::max_shortcuts) {
      entries.push_back(*std::move(entry));
      found.adopted.push_back(path);
    } else {
      found.unknown.push_back(path);
    }
  }
  if (!found.adopted.empty()) ledger_file::write(root, entries);
  return found;
}

std::vector<fs::path> follow_moved_folder(const fs::path& root, const fs::path& executable) {
  bool any = false;
  std::vector<fs::path> made;
  // The new ones first: a crash leaves both, and the next repair ends it.
  for (const auto& entry : ledger_file::read(root)) {
    const auto program = program_elsewhere(entry, root);
    any = any || program;
    if (!program || keeps_its_place(entry, *program, root)) continue;
    const fs::path path = native_menu_entry(root, entry.game, entry.name);
    create_owned_native_shortcut({executable, root, entry.game, entry.name}, path);
    made.push_back(path);
  }
  if (any) release_elsewhere(root);
  return made;
}

}  // namespace tavro
