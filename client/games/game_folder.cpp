#include "games/game_folder.h"

#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// Best effort: what stays closed is told by the removal that follows.
void open_up(const fs::path& root) {
  constexpr auto unlinked = fs::perm_options::add | fs::perm_options::nofollow;
  std::error_code ignored;
  fs::permissions(root, fs::perms::owner_all, unlinked, ignored);
  fs::recursive_directory_iterator entry(root, fs::directory_options::skip_permission_denied,
                                         ignored);
  // A folder is entered by the step after its visit.
  for (; entry != fs::recursive_directory_iterator(); entry.increment(ignored))
    if (!entry->is_symlink(ignored) && entry->is_directory(ignored))
      fs::permissions(entry->path(), fs::perms::owner_all, unlinked, ignored);
}

}  // namespace

void remove_game_folder(const fs::path& path) {
  if (!bears_name(path)) return;
  if (!remove_path_quietly(path)) {
    open_up(path);
    remove_path_quietly(path);
  }
  require(!bears_name(path), "file_remove", [&] {
    return "Not everything in this folder can be removed; remove it by hand: " + path_utf8(path);
  });
  sync_directory(path.parent_path());
}

}  // namespace tavro
