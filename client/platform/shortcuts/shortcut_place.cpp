#include "platform/shortcuts/shortcut_place.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <system_error>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/path_identity.h"
#include "platform/files/running_files.h"
#include "platform/shortcuts/shortcuts.h"

namespace tavro::shortcut_place {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t path_bytes = 4096;

bool is_control(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 32 || byte == 127;
}

bool is_utf8(std::string_view text) {
  try {
    json(text).dump();
    return true;
  } catch (const json::exception&) {
    return false;
  }
}

bool is_absolute(const fs::path& path) {
  return path.has_root_directory() && path == path.lexically_normal();
}

/// Whether a launcher's versions, or what is about to become one, hold the path.
bool is_in_payload(const fs::path& path) {
  for (fs::path folder = path.parent_path(); folder != folder.root_path();
       folder = folder.parent_path()) {
    const bool payload = folder.filename() == "versions" || folder.filename() == "staging";
    if (payload && folder.parent_path().filename() == "launcher") return true;
  }
  return false;
}

/// Best effort; what has other bytes is somebody else's.
void remove_if_same(const fs::path& path, std::string_view text) noexcept {
  try {
    if (fs::is_regular_file(fs::symlink_status(path)) && read_file(path, text.size()) == text)
      native_files::remove_or_trash(path, {});
  } catch (const std::exception&) {
    // The failure that led here is what counts.
    return;
  }
}

}  // namespace

void require_text(std::string_view text, std::size_t limit) {
  const bool bounded =
      !text.empty() && text.size() <= limit && std::none_of(text.begin(), text.end(), is_control);
  require(bounded, "shortcut_text",
          "Shortcut text must be bounded and contain no control characters");
  require(is_utf8(text), "shortcut_text", "Shortcut text must be valid UTF-8");
}

fs::path absolute(const fs::path& path) {
  require_text(path_utf8(path), path_bytes);
  require(is_absolute(path), "shortcut_path", "Shortcut paths must be absolute and normalized");
  return path;
}

fs::path below_root(const fs::path& path) {
  require_text(path_utf8(path), path_bytes);
  require(is_absolute(path) && path != path.root_path(), "shortcut_path",
          "Shortcut paths must be absolute and normalized below a filesystem root");
  return path;
}

void require_ordinary(const fs::path& path, Ordinary kind) {
  const bool directory = kind == Ordinary::directory;
  directory ? path_identity::directory_key(path) : path_identity::path_key(path);
  std::error_code ignored;
  const auto wanted = directory ? fs::file_type::directory : fs::file_type::regular;
  require(fs::symlink_status(path, ignored).type() == wanted, "shortcut_path",
          "Shortcut inputs need existing ordinary files and directories");
}

bool is_taken(const fs::path& path) noexcept {
  std::error_code ignored;
  return fs::symlink_status(path, ignored).type() != fs::file_type::not_found;
}

std::string entry_name(const fs::path& root, std::string_view game, std::string_view extension) {
  if (!game.empty()) validate_identifier(game);
  const fs::path folder = shortcut_place::absolute(fs::absolute(root).lexically_normal());
  std::string name = "tavro-" + digest(path_identity::directory_key(folder), "sha256");
  name.append(game.empty() ? "-launcher" : "-game-").append(game).append(extension);
  return name;
}

void require_free(const DesktopShortcut& shortcut, const fs::path& path,
                  const Sentences& sentences) {
  below_root(path);
  require(path.native().ends_with(sentences.extension), "shortcut_path", sentences.wrong_extension);
  require_ordinary(shortcut.executable, Ordinary::file);
  require_ordinary(shortcut.data_root, Ordinary::directory);
  require_ordinary(path.parent_path(), Ordinary::directory);
  const bool inside = path_identity::at_or_below(path_identity::path_key(path),
                                                 path_identity::directory_key(shortcut.data_root));
  require(!inside, "shortcut_path", sentences.inside_data);
  require(!is_in_payload(path), "shortcut_path", sentences.inside_payload);
  require(!is_taken(path), "already_exists", sentences.taken);
}

json create(const DesktopShortcut& shortcut, const fs::path& path, std::string_view text) {
  try {
    atomic_create(path, text);
  } catch (const std::exception&) {
    remove_if_same(path, text);
    throw;
  }
  return {{"schema_version", 1},
          {"created", true},
          {"path", path_utf8(path)},
          {"game_id", shortcut.game},
          {"bootstrap", path_utf8(shortcut.executable)},
          {"data_root", path_utf8(shortcut.data_root)}};
}

}  // namespace tavro::shortcut_place
