#include "platform/files/durable_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

enum class Destination { replaced, created };
enum class Privacy { private_file, plain_file };
enum class Durability { durable, volatile_file };

/// Removes the temporary file of a write that did not come to its end.
class TemporaryFile {
 public:
  explicit TemporaryFile(const fs::path& destination)
      : path_(destination.native() + "." + random_id() + ".tmp") {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (created_) retried([&] { return system_calls().unlink(path_.c_str()); });
  }

  UniqueFd create() {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd file = posix_files::open(path_, flags, 0600);
    created_ = bool(file);
    if (created_) return file;
    const auto error = static_cast<unsigned long>(errno);
    transaction_failure(error, "Cannot create transaction file " + path_utf8(path_));
  }

  const char* name() const { return path_.c_str(); }
  void done() { created_ = false; }

 private:
  fs::path path_;
  bool created_ = false;
};

/// `errno` is read before anything else can change it.
void require_step(bool succeeded, std::string_view message) {
  if (!succeeded) [[unlikely]]
    transaction_failure(static_cast<unsigned long>(errno), message);
}

void write_all(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        retried([&] { return system_calls().write(file, bytes.data(), bytes.size()); });
    if (count == 0) errno = EIO;
    require_step(count > 0, "Cannot write transaction file");
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void commit(const TemporaryFile& temporary, const fs::path& path, Destination destination) {
  const auto& calls = system_calls();
  if (destination == Destination::replaced) {
    require_step(retried([&] { return calls.rename(temporary.name(), path.c_str()); }) == 0,
                 "Cannot commit transaction file");
    return;
  }
  require_step(retried([&] { return calls.link(temporary.name(), path.c_str()); }) == 0,
               "Cannot create export; the destination may already exist");
  require_step(retried([&] { return calls.unlink(temporary.name()); }) == 0,
               "Cannot finish export transaction");
}

void atomic_file(const fs::path& path, std::string_view bytes, Destination destination,
                 Privacy privacy, Durability durability) {
  const fs::path parent = path.parent_path();
  if (privacy == Privacy::private_file)
    private_directory(parent);
  else
    require(fs::is_directory(parent) && !fs::is_symlink(parent), "unsafe_path",
            "Export parent must be an existing plain directory");
  require(!fs::is_symlink(path), "unsafe_path", "Refusing to replace a symbolic link");
  TemporaryFile temporary(path);
  UniqueFd file = temporary.create();
  if (privacy == Privacy::private_file) posix_files::secure_new_private(file.get(), false);
  write_all(file.get(), bytes);
  // The content is on stable media before the name leads to it: the destination never holds a part.
  if (durability == Durability::durable)
    require_step(posix_files::sync(file.get()) == 0, "Cannot synchronize transaction file");
  file.reset();
  commit(temporary, path, destination);
  if (durability == Durability::durable) sync_directory(parent);
  temporary.done();
}

}  // namespace

void private_directory(const fs::path& path) { posix_files::private_directory(path); }

void sync_file(const fs::path& path) {
  constexpr char code[] = "file_sync";
  require(posix_files::bounded_path(path), code,
          "File synchronization requires a bounded path without NUL bytes");
  constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  const UniqueFd file = posix_files::open(path, flags);
  const auto held = posix_files::node_of(file.get());
  require(held && S_ISREG(held->st_mode) && held->st_nlink == 1, code,
          "Synchronization requires an ordinary single-link file");
  require(posix_files::sync(file.get()) == 0, code, "Could not durably synchronize file");
  // What was synced is now known to be what the path names.
  const auto named = posix_files::node_at(path);
  require(named && named->st_nlink == 1 && posix_files::same_node(*held, *named), code,
          "Synchronized file path changed");
}

void sync_directory(const fs::path& path) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  const UniqueFd directory = posix_files::open(path, flags);
  require(bool(directory), "file_sync", "Cannot open directory for synchronization");
  require(posix_files::sync(directory.get()) == 0, "file_sync",
          "Could not durably synchronize directory");
}

void atomic_write(const fs::path& path, std::string_view bytes) {
  atomic_file(path, bytes, Destination::replaced, Privacy::private_file, Durability::durable);
}

void atomic_private_create(const fs::path& path, std::string_view bytes) {
  atomic_file(path, bytes, Destination::created, Privacy::private_file, Durability::durable);
}

void atomic_create(const fs::path& path, std::string_view bytes) {
  atomic_file(path, bytes, Destination::created, Privacy::plain_file, Durability::durable);
}

void replace_private_file(const fs::path& path, std::string_view bytes) {
  atomic_file(path, bytes, Destination::replaced, Privacy::private_file, Durability::volatile_file);
}

void transaction_failure(unsigned long error, std::string_view message) {
  require(error != ENOSPC && error != EDQUOT, "insufficient_space",
          "Local storage cannot save data; free space and try again");
  fail("file_write", std::string(message) + " (" + std::to_string(error) + ")");
}

}  // namespace tavro
