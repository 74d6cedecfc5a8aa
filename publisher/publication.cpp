#include "publisher/publication.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "publisher/output.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view staging_prefix = "staging-";
constexpr std::string_view incoming = "incoming";
constexpr mode_t public_folder_mode = 0755;
constexpr mode_t others_write_nothing = 022;
constexpr std::size_t random_id_length = 32;
constexpr unsigned long max_served_entries = 250000;

[[noreturn]] void write_failure(const fs::path& path) {
  const int error = errno;
  transaction_failure(static_cast<unsigned long>(error), "Cannot write " + path_utf8(path));
}

void make_folder(const fs::path& path) {
  if (system_calls().mkdirat(AT_FDCWD, path.c_str(), public_folder_mode) != 0 && errno != EEXIST)
    write_failure(path);
}

/// Every folder between `root` and the file.
void make_parents(const fs::path& root, const fs::path& name) {
  fs::path folder = root;
  for (const fs::path& component : name.parent_path()) make_folder(folder /= component);
}

/// A folder with the mode of another one: it may have been set for a group of publishers.
void make_like(const fs::path& original, const fs::path& copy) {
  make_folder(copy);
  struct stat status {};
  const UniqueFd folder(::open(copy.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder || ::stat(original.c_str(), &status) != 0 ||
      system_calls().fchmod(folder.get(), status.st_mode & 07777) != 0)
    write_failure(copy);
}

/// Only what bears a name as a publication makes it: others' files stay.
bool is_staging_name(std::string_view name) {
  if (!name.starts_with(staging_prefix)) return false;
  const std::string_view id = name.substr(staging_prefix.size());
  return id.size() == random_id_length &&
         id.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

void rename_file(const fs::path& from, const fs::path& to) {
  if (system_calls().rename(from.c_str(), to.c_str()) != 0) write_failure(to);
}

std::string in_the_way(std::string_view name) {
  return "What was served as " + std::string(name) +
         " is in the way of a new target; prune the repository first";
}

void walk_served(const fs::path& folder, const TreeVisitor& visit) {
  walk_tree(folder, max_served_entries, "The repository holds more than 250000 entries; prune it",
            visit);
}

void sync_tree(const fs::path& root) {
  walk_served(root, [](const fs::directory_entry& entry, std::string_view) {
    if (entry.is_directory() && !entry.is_symlink()) sync_directory(entry.path());
  });
  sync_directory(root);
}

/// Copies and hashes in one pass, so that what is described is what was copied.
std::string copy_hashed(const fs::path& source, OutputFile& target, const Progress& progress) {
  const UniqueFd file(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  require(file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode), "file_read",
          [&] { return "Cannot read file: " + path_utf8(source); });
  DigestState digest("sha256");
  std::array<char, kStreamBlock> block{};
  while (true) {
    const ssize_t count = read_some(file.get(), block.data(), block.size());
    require(count >= 0, "file_read", [&] { return "Cannot read file: " + path_utf8(source); });
    if (count == 0) return digest.value();
    const std::string_view bytes(block.data(), static_cast<std::size_t>(count));
    digest.update(bytes);
    target.write(bytes);
    const bool wanted =
        !progress || progress(target.written(), static_cast<unsigned long long>(status.st_size));
    require(wanted, "cancelled", "Operation cancelled at a safe boundary");
  }
}

}  // namespace

bool is_root_name(std::string_view name) {
  return name.starts_with(metadata_folder) && name.ends_with(".root.json");
}

ServedModes::ServedModes() : before_(::umask(others_write_nothing)) {}
ServedModes::~ServedModes() { ::umask(before_); }

UniqueFd lock_repository(const fs::path& repository) {
  UniqueFd folder(::open(repository.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  require(static_cast<bool>(folder), "invalid_repository",
          [&] { return "There is no repository in " + path_utf8(repository); });
  const int locked = retried([&] { return system_calls().flock(folder.get(), LOCK_EX | LOCK_NB); });
  require(locked == 0 || errno != EWOULDBLOCK, "busy", "Another publisher works on the repository");
  require(locked == 0, "lock_failed", "Cannot lock the repository");
  return folder;
}

Publication::Publication(fs::path repository)
    : repository_(std::move(repository)),
      served_(repository_ / served_folder),
      staging_(repository_ / (std::string(staging_prefix) + random_id())) {
  // An exchange would put a folder in place of the link, and a server might go on with what it
  // names.
  require(fs::symlink_status(served_).type() == fs::file_type::directory, "invalid_repository",
          [&] { return "The served folder must be a folder, and no link: " + path_utf8(served_); });
  std::vector<fs::path> leftovers;
  for (const auto& entry : fs::directory_iterator(repository_))
    if (is_staging_name(path_utf8(entry.path().filename()))) leftovers.push_back(entry.path());
  // One of them may be the folder that was served before an exchange which is not durable yet.
  if (!leftovers.empty()) sync_directory(repository_);
  for (const fs::path& leftover : leftovers) remove_path_quietly(leftover);
  make_folder(staging_);
}

Publication::~Publication() {
  if (!in_doubt_) remove_path_quietly(staging_);
}

void Publication::put(const std::string& name, std::string_view bytes) {
  make_parents(staging_, name);
  OutputFile file(staging_ / name);
  file.write(bytes);
  file.finish();
  names_.insert(name);
}

json Publication::put_target(const fs::path& source,
                             const std::function<std::string(const std::string& sha256)>& name_of,
                             const Progress& progress) {
  OutputFile file(staging_ / incoming);
  const std::string sha256 = copy_hashed(source, file, progress);
  return take(file, sha256, name_of);
}

json Publication::put_target(std::string_view bytes,
                             const std::function<std::string(const std::string& sha256)>& name_of) {
  OutputFile file(staging_ / incoming);
  file.write(bytes);
  return take(file, digest(bytes, "sha256"), name_of);
}

/// Gives what was written the name of its target.
json Publication::take(OutputFile& file, const std::string& sha256,
                       const std::function<std::string(const std::string& sha256)>& name_of) {
  json description = {{"length", file.written()}, {"hashes", {{"sha256", sha256}}}};
  const std::string name = name_of(sha256);
  if (names_.erase(name) == 1 && system_calls().unlink((staging_ / name).c_str()) != 0)
    write_failure(staging_ / name);
  // The same content under the same name need not be published again.
  const bool served = fs::symlink_status(served_ / name).type() == fs::file_type::regular &&
                      digest_file(served_ / name, "sha256") == sha256;
  if (!served) {
    make_parents(staging_, name);
    file.finish_as(staging_ / name);
    names_.insert(name);
  }
  return description;
}

std::string Publication::read(const std::string& name, unsigned long long max_bytes) const {
  return read_file((names_.contains(name) ? staging_ : served_) / name, max_bytes);
}

/// Whether clients that see nothing else of the change would see this file.
bool Publication::shows(const std::string& name) const {
  return is_root_name(name) || bears_name(served_ / name);
}

void Publication::commit() {
  std::vector<std::string> showing;
  for (const std::string& name : names_)
    if (shows(name)) showing.push_back(name);
  if (showing.size() > 1)
    exchange();
  else
    move_in(showing.empty() ? std::string() : showing.front());
}

void Publication::move_in(const std::string& last) {
  std::set<fs::path> changed = {repository_};
  const auto move = [&](const std::string& name) {
    make_parents(served_, name);
    rename_file(staging_ / name, served_ / name);
    fs::path folder = served_;
    changed.insert(folder);
    for (const fs::path& component : fs::path(name).parent_path())
      changed.insert(folder /= component);
  };
  for (const std::string& name : names_)
    if (name != last) move(name);
  for (const fs::path& folder : changed) sync_directory(folder);
  if (last.empty()) return;
  // All that it refers to is on stable media: from this rename on clients see the change.
  move(last);
  sync_directory((served_ / last).parent_path());
}

void Publication::exchange() {
  make_like(served_, staging_);
  walk_served(served_, [&](const fs::directory_entry& entry, std::string_view relative) {
    const fs::path copy = staging_ / relative;
    const bool folder = entry.is_directory() && !entry.is_symlink();
    const bool replaced = names_.contains(std::string(relative));
    require(!folder || !replaced, "target_conflict", [&] { return in_the_way(relative); });
    if (folder) return make_like(entry.path(), copy);
    if (replaced || system_calls().link(entry.path().c_str(), copy.c_str()) == 0) return;
    const int error = errno;
    require(error != EEXIST, "target_conflict", [&] { return in_the_way(relative); });
    errno = error;
    write_failure(copy);
  });
  sync_tree(staging_);
  // The new folder is whole on stable media before clients see it, in one step.
  const UniqueFd folder(::open(repository_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || host::exchange_names(folder.get(), served_.filename().c_str(), folder.get(),
                                      staging_.filename().c_str()) != 0)
    write_failure(served_);
  // What was served must not go before its replacement is durable.
  in_doubt_ = true;
  sync_directory(repository_);
  in_doubt_ = false;
}

std::size_t remove_served(const fs::path& repository,
                          const std::function<bool(std::string_view name)>& keep) {
  std::vector<fs::path> unwanted;
  std::vector<fs::path> folders;
  walk_served(
      repository / served_folder, [&](const fs::directory_entry& entry, std::string_view relative) {
        const bool target = relative.starts_with(std::string(targets_folder) + '/');
        const bool ours = target || relative.starts_with(std::string(metadata_folder) + '/');
        if (entry.symlink_status().type() == fs::file_type::directory && target)
          folders.push_back(entry.path());
        else if (ours && entry.symlink_status().type() == fs::file_type::regular && !keep(relative))
          unwanted.push_back(entry.path());
      });
  for (const fs::path& path : unwanted)
    require(system_calls().unlink(path.c_str()) == 0, "file_remove",
            [&] { return "Cannot remove " + path_utf8(path); });
  // Children stand behind their parents; a folder that is not empty stays.
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder)
    system_calls().unlinkat(AT_FDCWD, folder->c_str(), AT_REMOVEDIR);
  return unwanted.size();
}

}  // namespace tavro
