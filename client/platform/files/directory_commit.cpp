#include "platform/files/directory_commit.h"

#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "domain/error.h"
#include "platform/files/directory_chain.h"
#include "platform/files/private_storage.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using posix_files::same_node;

constexpr char commit_code[] = "native_install_commit";
constexpr mode_t private_file_mode = S_IRUSR | S_IWUSR;

bool below_root(const fs::path& path) {
  return posix_files::bounded_path(path) && path != path.root_path();
}

bool is_private_directory(const struct stat& node) {
  return S_ISDIR(node.st_mode) && node.st_uid == ::geteuid() &&
         (node.st_mode & posix_files::mode_bits) == S_IRWXU;
}

bool is_private_file(const struct stat& node) {
  return S_ISREG(node.st_mode) && node.st_nlink == 1 && node.st_uid == ::geteuid() &&
         (node.st_mode & posix_files::mode_bits) == private_file_mode;
}

fs::path new_directory_target(const fs::path& path) {
  require(posix_files::bounded_path(path), "unsafe_path",
          "New private directory requires a bounded path without NUL bytes");
  for (const auto& component : path)
    require(component != "..", "unsafe_path", "New private directory cannot traverse parents");
  fs::path target = posix_files::storage_target(path);
  require(below_root(target), "unsafe_path",
          "New private directory cannot be a filesystem root or exceed its absolute path bound");
  return target;
}

UniqueFd open_existing_parent(const fs::path& parent) {
  using End = posix_files::Ancestry::End;
  auto [end, directory] = posix_files::walk_ancestry(parent);
  require(end != End::root_unopened, "unsafe_path", "Cannot open new private directory ancestry");
  require(end != End::beyond_bound, "size_limit",
          "New private directory ancestry exceeds its bound");
  require(end == End::reached, "unsafe_path",
          "New private directory requires ordinary existing parents");
  return std::move(directory);
}

/// Makes the directory and answers what it is.
struct stat make_private_directory(int parent, const char* name) {
  const auto& calls = system_calls();
  require(retried([&] { return calls.mkdirat(parent, name, S_IRWXU); }) == 0, commit_code,
          "Cannot reserve new private staging directory");
  const UniqueFd directory(
      retried([&] { return calls.openat(parent, name, posix_files::walk_flags, mode_t{}); }));
  require(bool(directory), "permissions",
          [] { return host::naming_system("Cannot anchor new ", " staging directory"); });
  posix_files::secure_new_private(directory.get(), true);
  const auto made = posix_files::node_of(directory.get());
  require(made && is_private_directory(*made), "permissions",
          "New private staging directory permissions changed");
  return *made;
}

/// Every directory from the root down to this one, by what its name itself shows.
void require_ordinary_ancestry(const fs::path& directory) {
  fs::path ancestor;
  for (const auto& component : directory) {
    ancestor /= component;
    const auto node = posix_files::node_at(ancestor);
    require(node && S_ISDIR(node->st_mode), "unsafe_path",
            "Directory commit requires ordinary existing ancestry");
  }
}

bool unchanged(const struct stat& held, const struct stat& named) {
  return same_node(held, named) && held.st_uid == named.st_uid && held.st_mode == named.st_mode &&
         (S_ISDIR(named.st_mode) || named.st_nlink == 1);
}

/// A directory of an exchange: held open, with the identity that it had at first.
struct PinnedDirectory {
  explicit PinnedDirectory(const fs::path& at)
      : path(at), descriptor(posix_files::walk_ancestry(at).directory) {
    const auto held = posix_files::node_of(descriptor.get());
    require(held && is_private_directory(*held), commit_code,
            "Directory exchange requires private owned roots and parents");
    require_acl();
    node = *held;
  }

  void require_acl() const { posix_files::require_private_acl(descriptor.get()); }

  bool stands_at(const fs::path& at) const {
    const auto named = posix_files::node_at(at);
    return named && is_private_directory(*named) && same_node(node, *named) &&
           node.st_uid == named->st_uid && node.st_gid == named->st_gid;
  }

  fs::path path;
  UniqueFd descriptor;
  struct stat node {};
};

}  // namespace

void private_directory_new(const fs::path& path) {
  const fs::path target = new_directory_target(path);
  const fs::path name = target.filename();
  const UniqueFd parent = open_existing_parent(target.parent_path());
  const struct stat made = make_private_directory(parent.get(), name.c_str());

  // A second walk tells whether the path still leads to what was made.
  const UniqueFd again = open_existing_parent(target.parent_path());
  const auto first = posix_files::node_of(parent.get());
  const auto second = posix_files::node_of(again.get());
  const auto named = posix_files::node_in(again.get(), name.c_str());
  require(first && second && same_node(*first, *second) && named && is_private_directory(*named) &&
              same_node(made, *named),
          commit_code, "New private staging directory path changed");
}

void commit_private_path_new(const fs::path& source, const fs::path& destination,
                             const std::function<void()>& before_commit) {
  const fs::path from = posix_files::storage_target(source);
  const fs::path to = posix_files::storage_target(destination);
  require(below_root(from) && below_root(to) && from != to, "unsafe_path",
          "Directory commit requires distinct bounded paths");
  require_ordinary_ancestry(from.parent_path());
  require_ordinary_ancestry(to.parent_path());

  const UniqueFd file = posix_files::open(from, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  const auto held = posix_files::node_of(file.get());
  require(held && (is_private_directory(*held) || is_private_file(*held)), commit_code,
          "Commit source must be private and owned by this user");
  const bool directory = S_ISDIR(held->st_mode);
  posix_files::require_private_acl(file.get(), directory);
  if (before_commit) before_commit();
  posix_files::require_private_acl(file.get(), directory);
  const auto named = posix_files::node_at(from);
  require(named && unchanged(*held, *named), commit_code,
          "Source identity changed during verification");

  if (host::rename_new(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str()) == 0) return;
  const bool taken = errno == EEXIST;
  fail(taken ? "already_installed" : commit_code,
       "Cannot atomically install without replacing an existing destination");
}

void exchange_private_directories(const fs::path& left, const fs::path& right,
                                  const std::function<void()>& before_exchange) {
  const fs::path left_path = posix_files::plain_absolute(left);
  const fs::path right_path = posix_files::plain_absolute(right);
  require(below_root(left_path) && below_root(right_path) && left_path != right_path, "unsafe_path",
          "Directory exchange needs distinct bounded paths");

  const PinnedDirectory pinned_left(left_path);
  const PinnedDirectory pinned_right(right_path);
  const PinnedDirectory left_parent(left_path.parent_path());
  const PinnedDirectory right_parent(right_path.parent_path());
  const auto parents_stand = [&] {
    return left_parent.stands_at(left_parent.path) && right_parent.stands_at(right_parent.path);
  };
  require(pinned_left.node.st_dev == pinned_right.node.st_dev &&
              pinned_left.node.st_ino != pinned_right.node.st_ino,
          commit_code, "Directory exchange requires distinct roots on one volume");
  if (before_exchange) before_exchange();
  for (const auto* pinned : {&pinned_left, &pinned_right, &left_parent, &right_parent})
    pinned->require_acl();
  require(pinned_left.stands_at(left_path) && pinned_right.stands_at(right_path) && parents_stand(),
          commit_code, "Directory exchange identities changed during verification");

  require(host::exchange_names(left_parent.descriptor.get(), left_path.filename().c_str(),
                               right_parent.descriptor.get(), right_path.filename().c_str()) == 0,
          commit_code, "Cannot atomically exchange native directories");
  // From here on the exchange has happened: no failure may be taken for one that left all as it
  // was.
  require(posix_files::sync(left_parent.descriptor.get()) == 0 &&
              posix_files::sync(right_parent.descriptor.get()) == 0,
          "file_sync", "Cannot synchronize exchanged native directories");
  require(pinned_left.stands_at(right_path) && pinned_right.stands_at(left_path) && parents_stand(),
          commit_code,
          "Native directory exchange committed with changed ownership; recover its recorded "
          "identities");
}

}  // namespace tavro
