#include "platform/files/path_identity.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <vector>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/unique_fd.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro::path_identity {
namespace {

namespace fs = std::filesystem;
using host::NameRules;

constexpr int max_components = 256;
constexpr std::size_t name_key_bytes = 16384;

/// Every refusal names the system.
void must(bool condition, std::string_view before, std::string_view after) {
  require(condition, "unsafe_path", [&] { return host::naming_system(before, after); });
}

/// A path followed by descriptors, as far as it exists.
struct Walk {
  /// The deepest thing that exists.
  UniqueFd descriptor;
  /// The deepest thing that can be read, when that is another one.
  UniqueFd readable;
  struct stat node {};
  /// The components that do not exist yet.
  fs::path tail;
  /// For each component, existing or not, the rules of the folder that holds it.
  std::vector<NameRules> rules;
};

bool is_permitted(const struct stat& node, LastComponent last) {
  return S_ISDIR(node.st_mode) ||
         (last == LastComponent::directory_or_file && S_ISREG(node.st_mode));
}

int open_component(int directory, const char* name, LastComponent last) {
  const int kind = last == LastComponent::directory ? O_DIRECTORY : 0;
  const auto attempt = [&](int access) {
    const int flags = access | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | kind;
    return retried([&] { return ::openat(directory, name, flags); });
  };
  const int descriptor = attempt(O_RDONLY);
  // What may be passed but not read, such as the folder of everybody's homes, is still identified.
  if (descriptor >= 0 || errno != EACCES || host::search_only() == 0) return descriptor;
  return attempt(host::search_only());
}

bool is_readable(int descriptor) {
  const int search = host::search_only();
  return search == 0 || (::fcntl(descriptor, F_GETFL) & search) == 0;
}

/// One step down. False when nothing stands at the name.
bool enter(Walk& walk, const fs::path& name, LastComponent last) {
  UniqueFd next(open_component(walk.descriptor.get(), name.c_str(), last));
  if (!next && errno == ENOENT) return false;
  struct stat held {};
  struct stat named {};
  const bool same =
      next && ::fstat(next.get(), &held) == 0 &&
      ::fstatat(walk.descriptor.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
      posix_files::same_node(held, named) && is_permitted(held, last);
  must(same, "", " setup ancestry is linked, unavailable or changed");
  if (!is_readable(next.get()) && is_readable(walk.descriptor.get()))
    walk.readable = std::move(walk.descriptor);
  walk.descriptor = std::move(next);
  return true;
}

Walk follow(const fs::path& path, LastComponent last, const host::VolumeCalls& calls) {
  const fs::path target = resolve_system_links(path);
  Walk walk;
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  walk.descriptor.reset(retried([] { return ::open("/", flags); }));
  must(bool(walk.descriptor), "Cannot anchor ", " setup ancestry");
  const fs::path below = target.relative_path();
  int count = 0;
  for (auto component = below.begin(); component != below.end();) {
    const fs::path name = *component++;
    must(++count <= max_components && name != "..", "", " setup ancestry exceeds its bound");
    if (name.empty() || name == ".") continue;
    // What does not exist yet will lie in folders that inherit the rules of the last one.
    walk.rules.push_back(walk.tail.empty() ? calls.rules(walk.descriptor.get())
                                           : walk.rules.back());
    const auto kind = component == below.end() ? last : LastComponent::directory;
    if (!walk.tail.empty() || !enter(walk, name, kind)) walk.tail /= name;
  }
  must(::fstat(walk.descriptor.get(), &walk.node) == 0 && is_permitted(walk.node, last),
       "Cannot identify the existing ", " setup ancestor");
  return walk;
}

bool is_stable(const fs::path& path) {
  return path.is_absolute() && path == path.lexically_normal();
}

fs::path physical(int descriptor, const host::VolumeCalls& calls) {
  const fs::path path = calls.physical(descriptor);
  must(!path.empty(), "Cannot resolve the physical ", " setup path");
  must(is_stable(path), "", " setup ancestry has no stable physical path");
  return path;
}

std::string name_key(const fs::path& name, NameRules rules, const host::VolumeCalls& calls) {
  const auto text = calls.name_key(path_utf8(name), rules);
  const bool invalid = !text && errno == EILSEQ;
  must(!invalid, "", " setup names must be valid UTF-8");
  must(text.has_value(), "Cannot normalize ", " setup names");
  return *text;
}

/// What one look at a destination finds; two looks must find the same.
struct Inspection {
  Walk destination;
  Walk mount;
  fs::path destination_path;
  fs::path mount_path;
  /// The volume's part of the key.
  std::string volume;
  std::string key;
};

host::Mount mount_of(const Walk& walk, const host::VolumeCalls& calls) {
  auto mount = calls.mount(walk.descriptor.get());
  must(mount && mount->accepted, "",
       " setup control storage requires " + std::string(calls.accepted));
  must(is_stable(mount->path) && is_stable(mount->root), "Unknown ", " volume mount path");
  return *mount;
}

/// The place on the volume as the volume compares names, each component behind a "/".
std::string place_key(const Inspection& found, const host::Mount& mount,
                      const host::VolumeCalls& calls) {
  fs::path relative = found.destination_path.lexically_relative(found.mount_path);
  must(!relative.empty() && *relative.begin() != "..", "",
       " setup path escaped its mounted volume");
  if (relative == ".") relative.clear();
  // An empty tail would leave a separator behind.
  if (!found.destination.tail.empty()) relative /= found.destination.tail;

  std::string key;
  const auto append = [&](const fs::path& name, NameRules rules) {
    key += "/" + name_key(name, rules, calls);
    must(key.size() <= name_key_bytes, "Normalized ", " setup names exceed their bound");
  };
  for (const auto& name : fs::path(mount.root).relative_path()) append(name, mount.rules_above);
  // The last components of the walk are those below the mount.
  const auto& rules = found.destination.rules;
  auto left = static_cast<std::size_t>(std::distance(relative.begin(), relative.end()));
  for (const auto& name : relative) {
    append(name, left <= rules.size() ? rules[rules.size() - left] : mount.rules_above);
    --left;
  }
  return key;
}

/// What cannot be read does not tell all of a volume's identity: the root of the mount is asked
/// only when nothing below it that was passed can be read.
int readable_on(const Inspection& found, const host::Mount& mount, const host::VolumeCalls& calls) {
  for (const Walk* walk : {&found.mount, &found.destination})
    for (const UniqueFd* held : {&walk->descriptor, &walk->readable}) {
      if (!*held || !is_readable(held->get())) continue;
      const auto on = calls.mount(held->get());
      if (on && on->id == mount.id) return held->get();
    }
  return found.mount.descriptor.get();
}

Inspection inspect(const fs::path& path, LastComponent last, const host::VolumeCalls& calls) {
  Inspection found;
  found.destination = follow(path, last, calls);
  const host::Mount mount = mount_of(found.destination, calls);
  found.mount = follow(mount.path, LastComponent::directory, calls);
  // Not the device numbers: a subvolume has one of its own, on the same volume and mount.
  const auto reached = calls.mount(found.mount.descriptor.get());
  must(found.mount.tail.empty() && reached && reached->id == mount.id, "",
       " setup volume changed during inspection");
  found.destination_path = physical(found.destination.descriptor.get(), calls);
  found.mount_path = physical(found.mount.descriptor.get(), calls);
  found.volume = calls.identity(readable_on(found, mount, calls));
  must(!found.volume.empty(), "Cannot identify the ", " setup volume and its case behavior");
  found.key = found.volume + place_key(found, mount, calls);
  return found;
}

bool same(const Walk& left, const Walk& right) {
  return posix_files::same_node(left.node, right.node) && left.tail == right.tail;
}

bool same(const Inspection& left, const Inspection& right) {
  return same(left.destination, right.destination) && same(left.mount, right.mount) &&
         left.destination_path == right.destination_path && left.mount_path == right.mount_path &&
         left.volume == right.volume && left.key == right.key;
}

}  // namespace

std::string key(const fs::path& path, LastComponent last, const host::VolumeCalls& calls) {
  must(posix_files::bounded_path(path), "", " setup needs a bounded ordinary destination");
  const fs::path target = fs::absolute(path).lexically_normal();
  must(posix_files::bounded_path(target), "", " setup needs a bounded absolute destination");
  const Inspection found = inspect(target, last, calls);
  must(same(found, inspect(target, last, calls)), "",
       " setup ancestry or volume changed during inspection");
  return found.key;
}

std::string directory_key(const fs::path& path) { return key(path, LastComponent::directory); }

std::string path_key(const fs::path& path) { return key(path, LastComponent::directory_or_file); }

bool at_or_below(const std::string& key, const std::string& above) {
  return key == above || key.starts_with(above + "/");
}

}  // namespace tavro::path_identity
