#include "platform/files/managed_tree.h"

#include <cerrno>
#include <exception>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/directory_chain.h"
#include "platform/files/durable_files.h"
#include "platform/files/folder_access.h"
#include "platform/files/held_directory.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long max_cleanup_entries = 250000;

[[noreturn]] void removal_failed(int error, const fs::path& root) {
  throw fs::filesystem_error("cannot remove all", root,
                             std::error_code(error, std::generic_category()));
}

/// The directory that stands at a held name and is held itself from here on; `errno` tells why
/// there is none.
UniqueFd hold_directory(const posix_files::HeldName& held) {
  constexpr int flags = posix_files::walk_flags;
  return UniqueFd(retried([&] {
    return system_calls().openat(held.parent.get(), held.name.c_str(), flags, mode_t{});
  }));
}

/// False, with nothing removed, when `is_wanted` does not know the directory.
bool remove_proved(const fs::path& root, const std::function<bool(const struct stat&)>& is_wanted) {
  const auto held = posix_files::hold_name(root, posix_files::ParentLink::followed);
  const auto named =
      held.parent ? posix_files::node_in(held.parent.get(), held.name.c_str()) : std::nullopt;
  if (!named && (errno == ENOENT || errno == ENOTDIR)) return !is_wanted;
  if (!named) removal_failed(errno, root);
  constexpr char unplain[] = "Tree cleanup requires an ordinary directory";
  require(S_ISDIR(named->st_mode), "unsafe_path", unplain);
  const UniqueFd directory = hold_directory(held);
  if (!directory) removal_failed(errno, root);
  const auto node = posix_files::node_of(directory.get());
  require(node && posix_files::same_node(*node, *named), "unsafe_path", unplain);
  if (is_wanted && !is_wanted(*node)) return false;
  const auto require_in_place = [&] {
    const auto now = posix_files::node_in(held.parent.get(), held.name.c_str());
    require(now && posix_files::same_node(*node, *now), "unsafe_path", unplain);
  };
  tree_bytes(root, max_cleanup_entries);
  // The proof went by the path: it must have been of what is held.
  require_in_place();
  if (const int error = posix_files::remove_all_in(directory.get())) removal_failed(error, root);
  require_in_place();
  if (const int error = posix_files::remove_empty_in(held.parent.get(), held.name.c_str()))
    removal_failed(error, root);
  sync_directory(posix_files::plain_absolute(root).parent_path());
  return true;
}

/// A refused name is told with the path that has it.
void require_safe_name(const fs::path& root, std::string_view relative) {
  try {
    safe_join(root, relative, true);
  } catch (const Error& error) {
    const std::string message = error.what(), name = path_utf8(root / relative);
    if (message.find(name) != message.npos) throw;
    fail(error.code, message + ": " + name);
  }
}

}  // namespace

void walk_tree(const fs::path& root, unsigned long max_entries, std::string_view too_many,
               const TreeVisitor& visit) {
  const std::string& prefix = root.native();
  const std::size_t skipped = prefix.size() + (prefix.ends_with('/') ? 0 : 1);
  unsigned long count = 0;
  std::error_code error;
  // The step behind a folder is the one into it.
  fs::path entered = root;
  fs::recursive_directory_iterator entry(root, error);
  for (const fs::recursive_directory_iterator end; !error && entry != end; entry.increment(error)) {
    require(++count <= max_entries, "size_limit", too_many);
    visit(*entry, std::string_view(entry->path().native()).substr(skipped));
    entered = entry->path();
  }
  if (error) refuse_folder(entered, error.value());
}

unsigned long long tree_bytes(const fs::path& root, unsigned long max_entries) {
  const auto standing = type_at(root);
  if (standing == fs::file_type::not_found) return 0;
  require(standing == fs::file_type::directory, "unsafe_path", "Expected a plain directory");
  unsigned long long total = 0;
  walk_tree(root, max_entries, "Directory entry count exceeds bounds",
            [&](const auto& entry, auto relative) {
              require_safe_name(root, relative);
              const auto type = entry.symlink_status().type();
              const bool folder = type == fs::file_type::directory;
              require(folder || type == fs::file_type::regular, "unsafe_path", [&] {
                return "Tree contains a link or special file: " + path_utf8(entry.path());
              });
              if (folder) return;
              const auto length = static_cast<unsigned long long>(entry.file_size());
              require(!__builtin_add_overflow(total, length, &total), "size_limit",
                      "Tree size overflowed");
            });
  return total;
}

void remove_plain_tree(const fs::path& root) { remove_proved(root, {}); }

bool remove_identified_tree(const fs::path& root,
                            const std::array<unsigned long long, 2>& identity) {
  return remove_proved(root, [&](const struct stat& node) {
    return node.st_dev == identity[0] && node.st_ino == identity[1];
  });
}

bool remove_path_quietly(const fs::path& path) noexcept {
  try {
    const auto held = posix_files::hold_name(path, posix_files::ParentLink::followed);
    if (!held.parent) return errno == ENOENT;
    return posix_files::remove_tree_in(held.parent.get(), held.name.c_str()) == 0;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavro
