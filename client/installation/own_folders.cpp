#include "installation/own_folders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/directory_chain.h"
#include "platform/files/held_directory.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long max_entries = 250000;

/// Lists folders from the top down, each through the descriptor of the one that holds it.
class Opening {
 public:
  explicit Opening(OthersFolders others) : passes_others_(others == OthersFolders::passed) {}

  void open(const fs::path& folder) {
    const auto held = posix_files::hold_name(folder, posix_files::ParentLink::followed);
    if (held.parent) enter(held.parent.get(), held.name.c_str(), folder);
  }

  std::vector<std::string> done() && { return std::move(done_); }

 private:
  void enter(int parent, const char* name, const fs::path& path) {
    const auto node = posix_files::node_in(parent, name);
    if (!node || !S_ISDIR(node->st_mode)) return;
    // What a repair has set aside is nothing of the installation's, and only goes with all of it.
    const std::string own_name = path.filename().native();
    const bool set_aside = own_name == "set-aside" || own_name.find(".set-aside-") != own_name.npos;
    if (!passes_others_ && set_aside) return;
    const bool own = node->st_uid == ::geteuid();
    if (own && (node->st_mode & S_IRWXU) != S_IRWXU) give_rights(parent, name, path);
    const auto& calls = system_calls();
    const UniqueFd folder(
        retried([&] { return calls.openat(parent, name, posix_files::walk_flags, mode_t{}); }));
    int error = errno;
    require(own || (folder && passes_others_), "permissions",
            [&] { return path_utf8(path) + " belongs to another user" + remedy; });
    if (folder) error = look_into(folder.get(), path);
    require(error == 0 || is_gone(error), "file_read", [&] {
      return "Cannot list the folder " + path_utf8(path) + ": " +
             std::generic_category().message(error) + remedy;
    });
  }

  int look_into(int folder, const fs::path& path) {
    return posix_files::for_each_entry(folder, [&](const char* name, unsigned char type) {
      require(++entries_ <= max_entries, "size_limit", "Directory entry count exceeds bounds");
      if (type == DT_DIR || type == DT_UNKNOWN) enter(folder, name, path / name);
    });
  }

  void give_rights(int parent, const char* name, const fs::path& path) {
    const auto& calls = system_calls();
    const bool given =
        retried([&] { return calls.fchmodat(parent, name, S_IRWXU, AT_SYMLINK_NOFOLLOW); }) == 0;
    require(given, "file_write",
            [&] { return "Cannot give back the rights to " + path_utf8(path) + remedy; });
    done_.push_back(path_utf8(path) + " was opened to this user again");
  }

  /// Or something else by now, which is not walked into.
  static bool is_gone(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

  static constexpr char remedy[] = "; give it to this user alone and try again";

  bool passes_others_;
  std::vector<std::string> done_;
  unsigned long entries_ = 0;
};

}  // namespace

std::vector<std::string> open_own_folders(const DataPaths& paths, OthersFolders others) {
  Opening opening(others);
  for (const auto& folder : {paths.native, paths.launcher, paths.trust}) opening.open(folder);
  return std::move(opening).done();
}

}  // namespace tavro
