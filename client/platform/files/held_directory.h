#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "domain/unique_fd.h"

/// Looking and removing in a directory that is held open: whatever is exchanged on the way to it
/// meanwhile, nothing outside it is touched.
namespace tavro::posix_files {

/// A name, and the directory that holds it.
struct HeldName {
  /// Empty, with `errno` set, when it cannot be opened.
  UniqueFd parent;
  std::string name;
};

/// Whether the last component of the way to the parent may be a link.
enum class ParentLink { followed, refused };

/// The parent is opened also when it may be passed but not read. A separator at the end of the path
/// counts for nothing.
HeldName hold_name(const std::filesystem::path& path, ParentLink link);

/// Calls `visit` with each name in the directory and its type as the listing tells it (`DT_UNKNOWN`
/// where it does not), without "." and "..". 0, or the `errno` of what could not be read.
using EntryVisitor = std::function<void(const char* name, unsigned char type)>;
int for_each_entry(int directory, const EntryVisitor& visit);

/// Whether the directory holds nothing; nothing, with `errno` set, when that cannot be told.
std::optional<bool> is_empty(int directory);

/// Removes one entry that is no directory, or an empty directory. 0, or the `errno` number;
/// nothing there is 0.
int remove_in(int directory, const char* name) noexcept;
int remove_empty_in(int directory, const char* name) noexcept;

/// Removes all that the directory holds, or what stands at a name, recursively and without
/// following links; goes on behind what it cannot remove. 0, or the first `errno` number. Each
/// level of a tree takes two descriptors.
int remove_all_in(int directory);
int remove_tree_in(int directory, const char* name);

/// Removes the entry only if it is this very file: a stranger that takes its name at any moment
/// keeps both its place and its content. For that the file is set aside for an instant, which a
/// kill leaves behind. 0, `ESTALE` (another file has the name), or the `errno` number with the file
/// in its place.
int remove_file_in(int directory, const std::string& name, dev_t device, ino_t inode);
/// Whether this is such a file on its way out: the name tells which file it was given to, and that
/// is an ordinary one of this user with no other name.
bool is_set_aside(std::string_view name, const struct stat& node);

}  // namespace tavro::posix_files
