#pragma once

#include <filesystem>
#include <string_view>

namespace tavro {

/// `root` joined with a relative path from a document, which is validated first (see
/// `validate_relative_path`; nearly every caller passes portable `true`). No component may be a
/// symbolic link: `unsafe_path`, with its path; a folder that cannot be entered fails as in
/// `refuse_folder`. The root is trusted, and what does not exist yet is fine. This is
/// a look, not a lock: who must be safe against a change meanwhile compares identities.
std::filesystem::path safe_join(const std::filesystem::path& root, std::string_view relative,
                                bool portable);

/// `unsafe_path`, with the words of `safe_join`, when a component of an absolute path is a link.
/// The names are the user's own: no other rule holds for them.
void require_unlinked(const std::filesystem::path& path);

/// The check before a tree is staged: a file whose relative path has `longest_relative` bytes must
/// fit below `directory` within the system's bound on a path. Throws `size_limit`; `root` is the
/// folder that the user can choose otherwise.
void require_path_room(const std::filesystem::path& root, const std::filesystem::path& directory,
                       unsigned long longest_relative);

/// The absolute, normalised path in which the links of the operating system are resolved: links
/// owned by the superuser, in a directory that only the superuser can change. All others stay, for
/// the checks that refuse them. Throws `unsafe_path` for a 17th link or an unreadable one.
std::filesystem::path resolve_system_links(const std::filesystem::path& path);

/// Anything that bears the name counts, a dangling link as well, and so does a name that cannot be
/// looked at.
bool bears_name(const std::filesystem::path& path);

}  // namespace tavro
