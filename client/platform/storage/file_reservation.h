#pragma once

#include <filesystem>
#include <string_view>

#include "domain/unique_fd.h"

namespace tavro {

/// The record by which a reserved file is handed over between objects and processes.
struct FileReservation {
  /// Absolute.
  std::filesystem::path path;
  /// The size that was asked for, in bytes.
  unsigned long long size = 0;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  /// Storage of `size` bytes was reserved; false on a file system that cannot reserve.
  bool allocated = false;
};

/// A file that is open, with the proofs that it is the record's and that its path still names it.
struct OpenReservation : FileReservation {
  OpenReservation() = default;
  explicit OpenReservation(const FileReservation& record) : FileReservation(record) {}

  /// `device` and `inode` are set.
  bool identity_known = false;
  /// Owner, mode and access lists are looked at, too.
  bool private_file = false;
  UniqueFd descriptor;

  /// Opens the path for nothing but a look. Throws `unsafe_path` with this message.
  void open_for_inspection(std::string_view message);
  bool path_names_file() const noexcept;
  /// Throws `allocation_changed` with this message.
  void require_path(std::string_view message) const;
  /// Proves the open file and keeps its identity. Answers its size. Throws `unsafe_path` (no
  /// ordinary single-link file), `permissions` or `allocation_changed`.
  unsigned long long inspect();
  /// The path check, after the file was found between `least` and what was asked for.
  void require_in_bounds(unsigned long long least, std::string_view message);
};

}  // namespace tavro
