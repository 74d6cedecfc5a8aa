#include "installation/ledger_file.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <exception>
#include <system_error>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/held_directory.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/files/torn_write.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro::ledger_file {
namespace {

namespace fs = std::filesystem;

constexpr char file_name[] = "shortcuts.json";

OwnedShortcut parse_entry(const json& value) {
  OwnedShortcut entry;
  entry.path = value.at("path").get<std::string>();
  entry.game = value.at("game").get<std::string>();
  entry.name = value.at("name").get<std::string>();
  entry.sha256 = value.at("sha256").get<std::string>();
  shortcut_place::absolute(path_from_utf8(entry.path));
  return entry;
}

Entries parse(const json& document, const std::string& path) {
  const bool supported =
      document.at("schema_version") == 1 && document.at("kind") == "tavro-shortcuts" &&
      document.at("entries").is_array() && document.at("entries").size() <= max_shortcuts;
  require(supported, "shortcut_ledger", [&] { return "Unsupported shortcut list " + path; },
          {"Move the list away and run repair, which finds the shortcuts again"});
  Entries entries;
  for (const auto& value : document.at("entries")) entries.push_back(parse_entry(value));
  return entries;
}

bool is_plain_file(const fs::path& path) {
  std::error_code ignored;
  return fs::is_regular_file(fs::symlink_status(path, ignored));
}

}  // namespace

fs::path path_in(const fs::path& root) { return root / "native" / file_name; }

FileLock lock(const fs::path& root) {
  FileLock held(root / "native" / "shortcuts.lock", true, LockMode::exclusive);
  torn_write::remove_leftovers(root / "native", {file_name});
  return held;
}

Entries read(const fs::path& root) {
  const fs::path path = path_in(root);
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
                     [&] { return parse(document, path_utf8(path)); });
}

void write(const fs::path& root, const Entries& entries) {
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
  atomic_write(path_in(root), text);
}

bool unchanged(const OwnedShortcut& entry) {
  const fs::path path = path_from_utf8(entry.path);
  return is_plain_file(path) && digest(read_file(path, shortcut_bytes), "sha256") == entry.sha256;
}

bool remove_unchanged(const OwnedShortcut& entry) {
  const fs::path path = path_from_utf8(entry.path);
  const auto node = posix_files::node_at(path);
  if (!node || !unchanged(entry)) return false;
  const auto held = posix_files::hold_name(path, posix_files::ParentLink::followed);
  const int error = held.parent ? posix_files::remove_file_in(held.parent.get(), held.name,
                                                              node->st_dev, node->st_ino)
                                : errno;
  require(error == 0 || error == ESTALE, "file_remove",
          [&] { return "Cannot remove " + path_utf8(path) + posix_files::because(error); });
  return error == 0;
}

bool holds(const fs::path& path, std::string_view text) noexcept {
  try {
    return is_plain_file(path) && read_file(path, shortcut_bytes) == text;
  } catch (const std::exception&) {
    return false;
  }
}

OwnedShortcut entry_of(const DesktopShortcut& shortcut, const fs::path& path,
                       std::string_view text) {
  return {path_utf8(path), shortcut.game, shortcut.name, digest(text, "sha256")};
}

void remove_leftovers(const fs::path& path) {
  torn_write::remove_leftovers(path.parent_path(), {path.filename().native()});
  // Killed between its second name and the end of its first, the shortcut itself has both.
  const auto shortcut = posix_files::node_at(path);
  if (!shortcut || !S_ISREG(shortcut->st_mode) || shortcut->st_nlink == 1) return;
  for (const auto& entry : children(path.parent_path())) {
    const auto node = posix_files::node_at(entry);
    if (node && posix_files::same_node(*node, *shortcut) &&
        torn_write::is_temporary_name(entry.filename().native(), path.filename().native()))
      native_files::remove_or_trash(entry, {});
  }
}

}  // namespace tavro::ledger_file
