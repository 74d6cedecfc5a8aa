#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <string_view>

namespace tavro {

using TreeVisitor =
    std::function<void(const std::filesystem::directory_entry& entry, std::string_view relative)>;

/// Calls `visit` for each entry below the directory `root`, parents before children, without
/// following links. `relative` is the entry's path below `root`, valid during the call. The entry
/// beyond `max_entries` is `size_limit` with the message given; a folder that cannot be read fails
/// as in `refuse_folder`.
void walk_tree(const std::filesystem::path& root, unsigned long max_entries,
               std::string_view too_many, const TreeVisitor& visit);

/// The total length of the regular files below `root`; 0 when nothing stands there. Changes
/// nothing. Throws `unsafe_path` for a root that is no plain directory, an unportable name, a link
/// or a special file; `size_limit` for more than `max_entries` entries or a sum beyond 64 bits.
unsigned long long tree_bytes(const std::filesystem::path& root, unsigned long max_entries);

/// Removes a directory that the system made, and syncs its parent; nothing at `root` is fine. The
/// tree is held open meanwhile: what is put in its place, or a folder's in it, is not entered.
/// The whole tree (at most 250000 entries) is proved to hold only directories and regular files
/// before anything is removed: `unsafe_path`, `size_limit`. A removal that fails half-way surfaces
/// as `std::filesystem::filesystem_error`; calling again continues it.
void remove_plain_tree(const std::filesystem::path& root);

/// The same for the tree of this device and inode alone. False, with nothing removed, when another
/// directory or nothing stands at `root`.
bool remove_identified_tree(const std::filesystem::path& root,
                            const std::array<unsigned long long, 2>& identity);

/// Removes whatever stands at `path`, recursively and without following links. Best effort: no
/// sync, no failure raised. True when nothing failed.
bool remove_path_quietly(const std::filesystem::path& path) noexcept;

}  // namespace tavro
