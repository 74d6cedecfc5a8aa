#pragma once

#include <chrono>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "operations/operation_record.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// Ended operations that the journal keeps: so many, and none older than so long.
inline constexpr std::size_t kKeptOperations = 50;
inline constexpr std::uint64_t kKeptOperationSeconds = 30ULL * 24 * 3600;

/// An operation of this process, from its first entry in the journal to its last. While the object
/// lives it holds the operation's lock, by which others know that its process lives: when it dies
/// without an end, the operation was interrupted. Belongs to one thread.
class Operation {
 public:
  Operation(Operation&&) noexcept = default;

  const std::string& id() const noexcept { return record_.id; }

  /// Tells others how far it is, now and then, and answers false once one of them wants it to stop.
  /// To be called as often as there is news. A disk that takes no progress does not stop the work.
  bool report(std::string_view phase, std::uint64_t done, std::uint64_t total);
  /// Whether somebody wants it to stop; true stays true.
  bool cancel_asked();

  /// The end, durably. Throws what `atomic_write` throws.
  void succeed(json result);
  void fail_with(const std::exception& failure);

 private:
  friend class OperationJournal;
  using Clock = std::chrono::steady_clock;

  Operation(const std::filesystem::path& folder, OperationRecord record);
  void end(OperationState state);

  std::filesystem::path path_;
  std::filesystem::path cancel_path_;
  OperationRecord record_;
  FileLock lock_;
  bool cancelled_ = false;
  Clock::time_point asked_at_;
  Clock::time_point written_at_;
};

/// The operations of a data folder, in its folder `operations`: for each an entry ID.json, a lock
/// ID.lock that its process holds, and ID.cancel once somebody wants it to stop. Entries of another
/// version's schema stay as they are.
class OperationJournal {
 public:
  /// Touches nothing. Throws `unsafe_path`.
  explicit OperationJournal(const std::filesystem::path& data_root);

  /// Begins an operation of this process, unless `most` others run: `too_many_operations`. What is
  /// old and done goes from the journal. Throws `size_limit` for a request beyond the bounds of a
  /// record, and what the lock and `atomic_write` throw.
  Operation begin(std::vector<std::string> request, std::string retry_of, std::size_t most) const;

  /// All that can be read, the newest first. Whether an operation runs is told from its lock, not
  /// from its entry.
  std::vector<OperationRecord> list() const;
  /// Throws `not_found`, and the codes of `read_file`, `parse_json` and `OperationRecord::parse`.
  OperationRecord find(std::string_view id) const;

  /// Asks the process of the operation to stop, which it does at its next safe boundary. False when
  /// it does not run. Throws as `find`, and what `atomic_write` throws.
  bool cancel(std::string_view id) const;

 private:
  OperationRecord read(std::string_view id) const;
  std::vector<std::string> ids() const;
  bool is_held(std::string_view id) const;
  void prune(const std::vector<OperationRecord>& ended, std::uint64_t now) const;
  void sweep_strays() const;
  bool is_damaged(std::string_view id) const;
  void remove(std::string_view id) const;

  std::filesystem::path folder_;
};

}  // namespace tavro
