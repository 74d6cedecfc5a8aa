#include "installation/own_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "domain/crypto.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "installation/installed_brand.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr mode_t lock_mode = S_IRUSR | S_IWUSR;
constexpr std::size_t longest_kept_name = 200;

enum class Kind { empty_lock, lock, document, folder };

/// Where something of the installation belongs.
struct Place {
  fs::path path;
  Kind kind;
};

enum class Form { sound, open_to_others, filled, another_users, stranger };

bool is_lock(Kind kind) { return kind == Kind::empty_lock || kind == Kind::lock; }

Form form_of_lock(const struct stat& node, Kind kind) {
  if (!S_ISREG(node.st_mode)) return Form::stranger;
  if (node.st_uid != ::geteuid() || node.st_nlink != 1) return Form::another_users;
  if (kind == Kind::empty_lock && node.st_size != 0) return Form::filled;
  const bool is_private = (node.st_mode & posix_files::mode_bits) == lock_mode;
  return is_private ? Form::sound : Form::open_to_others;
}

Form form_of(const Place& place) {
  const auto node = posix_files::node_at(place.path);
  if (!node) return Form::sound;
  if (is_lock(place.kind)) return form_of_lock(*node, place.kind);
  const bool fits =
      place.kind == Kind::folder ? S_ISDIR(node->st_mode) : S_ISREG(node->st_mode) != 0;
  return fits ? Form::sound : Form::stranger;
}

std::string told(const Place& place, Form form) {
  const std::string path = path_utf8(place.path);
  switch (form) {
    case Form::sound:
      return {};
    case Form::open_to_others:
      return path + " is not private";
    case Form::filled:
      return path + " is not empty";
    case Form::another_users:
      return path + " belongs to another user or has a second name";
    case Form::stranger:
      return path + (place.kind == Kind::folder ? " is no folder" : " is no ordinary file");
  }
  return {};
}

bool is_plain_folder(const fs::path& path) {
  std::error_code ignored;
  return fs::is_directory(fs::symlink_status(path, ignored));
}

/// The leases of one kind, whatever versions or attempts they belong to.
void add_leases(std::vector<Place>& places, const fs::path& folder) {
  places.push_back({folder, Kind::folder});
  std::error_code error;
  if (!is_plain_folder(folder)) return;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error))
    if (entry->path().extension() == ".lock") places.push_back({entry->path(), Kind::lock});
}

Place setup_place(const DataPaths& paths) { return {paths.setup_lock, Kind::empty_lock}; }

std::vector<Place> lock_places(const DataPaths& paths) {
  std::vector<Place> places = {{paths.bootstrap_lock, Kind::empty_lock}};
  // Behind a link lies what is not this installation's.
  if (is_plain_folder(paths.native)) {
    places.push_back({paths.native / "bootstrap-update.lock", Kind::empty_lock});
    places.push_back({paths.native / "shortcuts.lock", Kind::lock});
  }
  if (is_plain_folder(paths.trust)) places.push_back({paths.trust / ".lock", Kind::lock});
  if (!is_plain_folder(paths.launcher)) return places;
  places.push_back({paths.launcher / "bootstrap.lock", Kind::lock});
  const fs::path leases = paths.launcher / "leases";
  places.push_back({leases, Kind::folder});
  if (!is_plain_folder(leases)) return places;
  add_leases(places, leases / "versions");
  add_leases(places, leases / "attempts");
  return places;
}

std::vector<Place> document_places(const DataPaths& paths) {
  std::vector<Place> places = {{paths.repository, Kind::document},
                               {paths.repository_ca, Kind::document}};
  if (!is_plain_folder(paths.native)) return places;
  fs::path menu_image = brand_icon_path(paths.root);
  menu_image.replace_extension(".png");
  for (const auto& document : {paths.installation, paths.setup_status, paths.bootstrap_manifest,
                               brand_icon_path(paths.root), menu_image})
    places.push_back({document, Kind::document});
  places.push_back({theme_directory(paths.root), Kind::folder});
  return places;
}

/// What only has to be told: a repair replaces these, or asks for the first to be moved away.
std::vector<Place> part_places(const DataPaths& paths) {
  std::vector<Place> places;
  for (const auto& part : {paths.native, paths.bootstrap, paths.launcher, paths.trust})
    places.push_back({part, Kind::folder});
  return places;
}

/// Throws `busy` when a process holds this open file or folder as its lock. Where it cannot be
/// locked at all it is taken for free.
void require_not_held(const UniqueFd& file) {
  if (!file) return;
  const auto& calls = system_calls();
  const bool held = retried([&] { return calls.flock(file.get(), LOCK_EX | LOCK_NB); }) != 0 &&
                    errno == EWOULDBLOCK;
  require(!held, "busy", [] { return branded("Another Tavro operation is using this state"); });
}

fs::path aside_name(const fs::path& path) { return set_aside_start(path).native() + random_id(); }

std::string set_aside_as(const fs::path& aside) {
  return " and was set aside as " + path_utf8(aside);
}

std::string move_aside(const DataPaths& paths, const Place& place, Form form) {
  // A file that a process holds as its lock keeps its name: two would hold "the" lock otherwise.
  if (form != Form::stranger) require_free(place.path);
  const bool of_store = within(place.path, paths.launcher);
  return told(place, form) + set_aside_as(of_store ? set_aside_from_store(paths.root, place.path)
                                                   : set_aside(place.path));
}

/// Empty when the file cannot be opened or belongs to another user: then the lock says so.
std::string make_private(const Place& place) {
  const UniqueFd file =
      posix_files::open(place.path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  const auto node = file ? posix_files::node_of(file.get()) : std::nullopt;
  if (!node || form_of_lock(*node, place.kind) != Form::open_to_others) return {};
  const auto& calls = system_calls();
  if (retried([&] { return calls.fchmod(file.get(), lock_mode); }) != 0) return {};
  return path_utf8(place.path) + " was made private again";
}

std::string mended(const DataPaths& paths, const Place& place) {
  const Form form = form_of(place);
  if (form == Form::open_to_others) return make_private(place);
  return form == Form::sound ? std::string() : move_aside(paths, place, form);
}

std::vector<std::string> mend(const DataPaths& paths, const std::vector<Place>& places) {
  std::vector<std::string> done;
  for (const auto& place : places)
    if (std::string sentence = mended(paths, place); !sentence.empty())
      done.push_back(std::move(sentence));
  return done;
}

}  // namespace

fs::path set_aside_start(const fs::path& path) { return path.native() + ".set-aside-"; }

fs::path set_aside(const fs::path& path) {
  const fs::path aside = aside_name(path);
  native_files::rename_replace(path, aside);
  sync_directory(path.parent_path());
  return aside;
}

fs::path set_aside_from_store(const fs::path& root, const fs::path& path) {
  const fs::path folder = DataPaths(root).native / "set-aside";
  private_directory(folder);
  // Cut, so that also the longest name takes the number behind it.
  const std::string name = path.filename().native().substr(0, longest_kept_name);
  const fs::path aside = folder / (name + "." + random_id());
  native_files::rename_replace(path, aside);
  // Durable where it lies now before it is gone from where it lay.
  sync_directory(folder);
  sync_directory(path.parent_path());
  return aside;
}

std::string message_naming(const Error& error, const fs::path& path) {
  std::string message = error.what();
  const std::string name = path_utf8(path);
  if (message.find(name) == message.npos) message += ": " + name;
  return message;
}

std::string named_message(const Error& error, const fs::path& path) {
  // Player data may lie in a folder that is not private, so that nobody is told to remove one.
  return message_naming(error, path) +
         (error.code == "permissions"
              ? "; give it to this user alone and try again"
              : "; run repair, or remove it while nothing runs from the folder");
}

std::vector<std::string> file_problems(const DataPaths& paths) {
  std::vector<std::string> problems;
  for (const auto& places : {std::vector{setup_place(paths)}, part_places(paths),
                             lock_places(paths), document_places(paths)})
    for (const auto& place : places)
      if (const Form form = form_of(place); form != Form::sound)
        problems.push_back(told(place, form));
  return problems;
}

std::vector<std::string> mend_locks(const DataPaths& paths) {
  return mend(paths, lock_places(paths));
}

NativeFileLock take_setup_lock(const DataPaths& paths, std::vector<std::string>& mended) {
  const UniqueFd folder = posix_files::open(paths.root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // It is held for these lines only, and whoever holds it takes the lock himself; it is not waited
  // for, since a process can be stopped anywhere. Where folders cannot be locked it has to go
  // without.
  require_not_held(folder);
  const auto done = mend(paths, {setup_place(paths)});
  mended.insert(mended.end(), done.begin(), done.end());
  return naming(paths.setup_lock, [&] {
    return NativeFileLock(paths.setup_lock, true, NativeLockSharing::none, LockMode::exclusive);
  });
}

void require_free(const fs::path& path) {
  require_not_held(posix_files::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
}

std::vector<std::string> set_aside_marker(const DataPaths& paths) {
  const Place marker{paths.incomplete_marker, Kind::document};
  if (form_of(marker) == Form::sound) return {};
  const fs::path aside = aside_name(marker.path);
  // Any bytes will do: what counts is that something stands there.
  atomic_private_create(aside, {});
  const bool exchanged =
      host::exchange_names(AT_FDCWD, aside.c_str(), AT_FDCWD, marker.path.c_str()) == 0;
  if (const int error = errno; !exchanged) {
    native_files::remove_quietly(aside);
    fail("file_write", "Cannot set aside " + path_utf8(marker.path) + posix_files::because(error));
  }
  sync_directory(paths.root);
  return {told(marker, Form::stranger) + set_aside_as(aside)};
}

bool has_strangers(const DataPaths& paths) {
  const auto places = document_places(paths);
  return std::any_of(places.begin(), places.end(),
                     [](const auto& place) { return form_of(place) != Form::sound; });
}

std::vector<std::string> set_aside_strangers(const DataPaths& paths) {
  return mend(paths, document_places(paths));
}

}  // namespace tavro
