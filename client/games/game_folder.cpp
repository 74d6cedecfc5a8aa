#include "games/game_folder.h"

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"

namespace tavro {

namespace fs = std::filesystem;

void remove_game_folder(const fs::path& path) {
  if (!bears_name(path)) return;
  require(remove_path_quietly(path) && !bears_name(path), "file_remove", [&] {
    return "Not everything in this folder can be removed; open what is closed in it, or remove it "
           "by hand: " +
           path_utf8(path);
  });
  sync_directory(path.parent_path());
}

}  // namespace tavro
