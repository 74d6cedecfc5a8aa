#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

#include "domain/progress.h"
#include "platform/storage/file_reservation.h"

namespace tavro {

/// The write target of every large file: created exclusively and private, reserved at full size
/// before the work, and proved at each step to be still what its path names. A file that was
/// replaced is `allocation_changed`, and stays as it is.
///
/// A new file that is never finished, preserved or retained disappears with its object; a reopened
/// one stays. Belongs to one thread. Apart from the codes named below, each operation throws
/// `allocation_changed`, `unsafe_path` (no ordinary single-link file) or `permissions`.
class AllocatedFile {
 public:
  /// Creates the file in an existing directory. `on_created`, when set, durably records that the
  /// file is the caller's, before any space is taken: a crash then leaves no large file unknown.
  /// Throws `size_limit` (beyond signed 64 bits), `insufficient_space`, `space_reservation`.
  AllocatedFile(const std::filesystem::path& path, unsigned long long size,
                const std::function<void(const FileReservation&)>& on_created);
  /// Reopens a reserved file that is untouched: empty, or at full size if it was allocated.
  explicit AllocatedFile(const FileReservation& reservation);
  /// Reopens a partial file, to go on from `written`.
  AllocatedFile(const FileReservation& reservation, unsigned long long written);
  AllocatedFile(AllocatedFile&&) noexcept;
  AllocatedFile& operator=(AllocatedFile&&) noexcept;
  ~AllocatedFile();

  /// Throws if the reservation's file is gone, changed or grown beyond its size. Ownership and mode
  /// are not looked at.
  static void verify_identity(const FileReservation& reservation);
  /// The record of an existing file, with its present size and `allocated` false. Ownership and
  /// mode are not looked at.
  static FileReservation inspect_file(const std::filesystem::path& path);

  FileReservation reservation() const;
  /// Bytes written or accepted so far; the write position.
  unsigned long long written() const noexcept;
  /// The file's present size; while space is reserved ahead, more than `written`.
  unsigned long long size() const;
  /// The bytes that the file takes on disk. Throws `volume_query`, `size_limit`.
  unsigned long long allocated_bytes() const;

  /// Reserves the rest of the file for a resumed write. Throws as the creating constructor.
  void reserve_remaining();
  /// Moves the position back to 0. Bytes on disk stay until they are overwritten.
  void restart();
  /// From now on the file is kept when the object dies.
  void preserve();
  /// Removes the file now, and syncs its directory.
  void discard();
  /// Brings the data to stable media: `file_sync`. A failure is final, and never repeated.
  void synchronize();
  /// Feeds the first `length` bytes to `consumer`, in blocks of at most 65536, to check a recorded
  /// prefix; the position is not moved. `progress`, when set, gets bytes done and total; false is
  /// `cancelled`. A short file is `file_read`.
  void read_prefix(unsigned long long length, const std::function<void(std::string_view)>& consumer,
                   const Progress& progress);
  /// Closes an unwritten file and returns its record, for the reopening constructors.
  FileReservation retain_reservation();
  /// `size_limit` beyond the file's size, with nothing written; `insufficient_space`, `file_write`.
  /// After a failure `written` tells what arrived.
  void write(std::string_view bytes);
  /// Sets mode 0700 or 0600; the file stays private. Throws `file_permissions`.
  void set_executable(bool executable);
  /// Ends the file at `written`, makes it durable and gives it up: from now on the file stays. Its
  /// name is durable once the caller syncs the directory. With `require_complete` fewer bytes than
  /// the size are `length_mismatch`.
  void finish(bool require_complete);
  /// `finish` without the sync, for a writer of many files that syncs each of them later, before
  /// anything refers to them: the system starts to write the data out, and promises nothing yet.
  void finish_unsynchronized(bool require_complete);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavro
