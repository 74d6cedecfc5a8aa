#include "platform/storage/allocated_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <limits>
#include <string>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/unique_fd.h"
#include "platform/files/durable_files.h"
#include "platform/files/held_directory.h"
#include "platform/files/private_storage.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "platform/storage/storage_volume.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char changed[] = "allocation_changed";
constexpr unsigned long long block_bytes = 512;

[[noreturn]] void storage_failure(int error, std::string_view code, std::string_view message) {
  require(error != ENOSPC && error != EDQUOT, "insufficient_space",
          "Cannot allocate game storage; free space or choose another location");
  fail(code, std::string(message) + " (" + std::to_string(error) + ")");
}

}  // namespace

struct AllocatedFile::Impl : OpenReservation {
  unsigned long long written = 0;
  bool owned = false;
  /// Held, so that the removal reaches this file whatever became of the path.
  posix_files::HeldName place;

  Impl() = default;
  explicit Impl(const FileReservation& record) : OpenReservation(record) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() {
    // Before the descriptor closes: while it is open no other file can get this inode.
    try {
      if (owned && identity_known) remove();
    } catch (const std::exception&) {
      // Memory ran out: the file stays, as after a kill.
    }
  }

  enum class Opening { create, reopen };
  void open(Opening opening);
  void create(const std::function<void(const FileReservation&)>& on_created);
  void reopen(const FileReservation& record, unsigned long long least, unsigned long long most);

  int remove() const {
    return posix_files::remove_file_in(place.parent.get(), place.name, device, inode);
  }
  void allocate();
  void seek(unsigned long long position);
  void synchronize();
  void settle(bool require_complete);
  void give_up() {
    owned = false;
    descriptor.reset();
    place.parent.reset();
  }
};

void AllocatedFile::Impl::allocate() {
  const int error = size == 0 ? 0 : posix_files::reserve(descriptor.get(), size);
  require(error != ENOSPC && error != EDQUOT, "insufficient_space",
          "Cannot reserve file data; free space or choose other game storage");
  // A file system that cannot reserve takes the file as it comes.
  require(error == 0 || error == ENOTSUP || error == ENOSYS, "space_reservation",
          [error] { return "Native file allocation failed (" + std::to_string(error) + ")"; });
  if (error == 0) allocated = true;
}

void AllocatedFile::Impl::seek(unsigned long long position) {
  require(::lseek(descriptor.get(), static_cast<off_t>(position), SEEK_SET) >= 0, "file_write",
          "Cannot position allocated file");
}

void AllocatedFile::Impl::open(Opening opening) {
  require(size <= static_cast<unsigned long long>(std::numeric_limits<off_t>::max()), "size_limit",
          "File allocation exceeds native length bounds");
  path = fs::absolute(path);
  place = posix_files::hold_name(path, posix_files::ParentLink::refused);
  require(bool(place.parent), "unsafe_path", "Allocation requires an ordinary parent directory");
  constexpr int common = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  const bool is_new = opening == Opening::create;
  const int flags = is_new ? common | O_CREAT | O_EXCL : common;
  descriptor.reset(retried([&] {
    return system_calls().openat(place.parent.get(), place.name.c_str(), flags, mode_t{0600});
  }));
  if (!descriptor)
    storage_failure(errno, "unsafe_path",
                    "Cannot exclusively create or reopen a prepared allocation");
  owned = is_new;
  private_file = true;
  if (is_new) posix_files::secure_new_private(descriptor.get(), false);
}

void AllocatedFile::Impl::create(const std::function<void(const FileReservation&)>& on_created) {
  open(Opening::create);
  require(inspect() == 0, "unsafe_path", "A new allocation must begin empty");
  require_path("New allocation path changed before recording ownership");
  // Ownership is recorded before any space is taken: a crash then leaves no large file unknown.
  if (on_created) on_created(*this);
  const bool still_empty = inspect() == 0;
  require(still_empty && path_names_file(), changed,
          "New allocation changed while recording ownership");
  allocate();
  const auto expected = allocated ? size : 0;
  require(inspect() == expected && path_names_file(), changed,
          "New allocation changed during preparation");
}

void AllocatedFile::Impl::reopen(const FileReservation& record, unsigned long long least,
                                 unsigned long long most) {
  open(Opening::reopen);
  const auto present = inspect();
  require(device == record.device && inode == record.inode && least <= present && present <= most,
          changed, "Prepared file was replaced or changed; reserved content was preserved");
  require_path("Prepared allocation path changed");
}

void AllocatedFile::Impl::synchronize() {
  require_in_bounds(written, "Partial file changed before synchronization");
  require(posix_files::sync(descriptor.get()) == 0, "file_sync",
          "Cannot synchronize reserved file data");
}

void AllocatedFile::Impl::settle(bool require_complete) {
  require(!require_complete || written == size, "length_mismatch",
          "File data is shorter than its authenticated length");
  require_in_bounds(written, "Allocated file changed before completion");
  const auto length = static_cast<off_t>(written);
  if (retried([&] { return system_calls().ftruncate(descriptor.get(), length); }) != 0)
    storage_failure(errno, "file_write", "Cannot set allocated file length");
  require(inspect() == written && path_names_file(), changed,
          "Allocated file changed during writing");
}

AllocatedFile::AllocatedFile(const fs::path& path, unsigned long long size,
                             const std::function<void(const FileReservation&)>& on_created)
    : impl_(new Impl) {
  impl_->path = path;
  impl_->size = size;
  impl_->create(on_created);
}

AllocatedFile::AllocatedFile(const FileReservation& reservation) : impl_(new Impl(reservation)) {
  const auto expected = reservation.allocated ? reservation.size : 0;
  impl_->reopen(reservation, expected, expected);
}

AllocatedFile::AllocatedFile(const FileReservation& reservation, unsigned long long written)
    : impl_(new Impl(reservation)) {
  impl_->reopen(reservation, written, reservation.size);
  impl_->seek(written);
  impl_->written = written;
}

AllocatedFile::AllocatedFile(AllocatedFile&&) noexcept = default;
AllocatedFile& AllocatedFile::operator=(AllocatedFile&&) noexcept = default;
AllocatedFile::~AllocatedFile() = default;

void AllocatedFile::verify_identity(const FileReservation& reservation) {
  OpenReservation file(reservation);
  file.identity_known = true;
  file.open_for_inspection("Cannot inspect owned partial file identity");
  file.require_in_bounds(0, "Owned partial file identity or bounds changed");
}

FileReservation AllocatedFile::inspect_file(const fs::path& path) {
  OpenReservation file;
  file.path = fs::absolute(path);
  file.open_for_inspection("Cannot inspect cache file identity");
  file.size = file.inspect();
  file.require_path("Cache file changed during inspection");
  return file;
}

FileReservation AllocatedFile::reservation() const { return *impl_; }

unsigned long long AllocatedFile::written() const noexcept { return impl_->written; }

unsigned long long AllocatedFile::size() const { return impl_->inspect(); }

unsigned long long AllocatedFile::allocated_bytes() const {
  impl_->inspect();
  const auto node = posix_files::node_of(impl_->descriptor.get());
  require(node && node->st_blocks >= 0, "volume_query", "Cannot inspect existing file allocation");
  return storage_sum::multiply(static_cast<unsigned long long>(node->st_blocks), block_bytes);
}

void AllocatedFile::reserve_remaining() {
  impl_->require_in_bounds(impl_->written, "Resume allocation changed");
  impl_->allocate();
  impl_->seek(impl_->written);
}

void AllocatedFile::restart() {
  impl_->require_path("Cannot restart a replaced partial file");
  impl_->seek(0);
  impl_->written = 0;
}

void AllocatedFile::preserve() {
  impl_->require_path("Cannot preserve a replaced partial file");
  impl_->owned = false;
}

void AllocatedFile::discard() {
  impl_->require_path("Cannot discard a replaced partial file");
  impl_->owned = true;
  impl_->descriptor.reset();
  impl_->require_path("Partial path changed before disposal");
  const int error = impl_->remove();
  require(error != ESTALE, changed, "Partial path changed before disposal");
  if (error != 0)
    throw fs::filesystem_error("cannot remove", impl_->path,
                               std::error_code(error, std::generic_category()));
  impl_->owned = false;
  sync_directory(impl_->path.parent_path());
}

void AllocatedFile::synchronize() { impl_->synchronize(); }

void AllocatedFile::read_prefix(unsigned long long length,
                                const std::function<void(std::string_view)>& consumer,
                                const Progress& progress) {
  const auto tell = [&](unsigned long long done) {
    require(!progress || progress(done, length), "cancelled", "Partial verification cancelled");
  };
  impl_->require_in_bounds(length, "Recorded prefix changed");
  require(length <= impl_->written, changed, "Recorded prefix changed");
  tell(0);
  std::array<char, kStreamBlock> block;
  for (unsigned long long done = 0; done < length;) {
    const auto wanted =
        static_cast<std::size_t>(std::min<unsigned long long>(block.size(), length - done));
    const ssize_t count = retried([&] {
      return ::pread(impl_->descriptor.get(), block.data(), wanted, static_cast<off_t>(done));
    });
    require(count > 0, "file_read", "Cannot read recorded partial prefix");
    consumer({block.data(), static_cast<std::size_t>(count)});
    done += static_cast<unsigned long long>(count);
    tell(done);
  }
  impl_->require_in_bounds(length, "Partial file changed during prefix verification");
}

FileReservation AllocatedFile::retain_reservation() {
  require(impl_->written == 0 && impl_->path_names_file(), changed,
          "Cannot retain a changed allocation");
  impl_->give_up();
  return *impl_;
}

void AllocatedFile::write(std::string_view bytes) {
  require(bytes.size() <= impl_->size - impl_->written, "size_limit",
          "Write exceeds the authenticated file length");
  while (!bytes.empty()) {
    const std::size_t block = std::min(bytes.size(), kStreamBlock);
    const ssize_t count =
        retried([&] { return system_calls().write(impl_->descriptor.get(), bytes.data(), block); });
    if (count < 0) storage_failure(errno, "file_write", "Cannot write staged file data");
    require(count > 0, "file_write", "Cannot advance staged file data");
    impl_->written += static_cast<unsigned long long>(count);
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void AllocatedFile::set_executable(bool executable) {
  impl_->require_in_bounds(0, "Allocated file changed before setting executable permissions");
  const mode_t mode = executable ? 0700 : 0600;
  require(retried([&] { return system_calls().fchmod(impl_->descriptor.get(), mode); }) == 0,
          "file_permissions", "Cannot set private allocated file permissions");
  impl_->require_path("Allocated file changed while setting executable permissions");
}

void AllocatedFile::finish(bool require_complete) {
  impl_->settle(require_complete);
  impl_->synchronize();
  impl_->give_up();
}

void AllocatedFile::finish_unsynchronized(bool require_complete) {
  impl_->settle(require_complete);
  host::begin_writeback(impl_->descriptor.get());
  impl_->give_up();
}

}  // namespace tavro
