#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// 2^42 bytes: the bound of an archive and of an expanded tree.
inline constexpr std::uint64_t kMaxSnapshotBytes = 4398046511104;
inline constexpr std::size_t kMaxSnapshotFiles = 100000;

/// The one form of an archive that carries a full build.
inline constexpr std::string_view kSnapshotFormat = "tar.zst-v1";

/// One file of an inventory.
struct PackageFile {
  std::uint64_t length = 0;
  /// Lower-case hexadecimal.
  std::string sha256;
  /// Mode 0755, otherwise 0644.
  bool executable = false;

  bool operator==(const PackageFile&) const = default;
};

/// The complete inventory of one build. After `parse` its paths are ASCII, portable and free of
/// collisions on any file system, and its sizes are bounded and agree with each other.
struct SnapshotManifest {
  /// As received, with the members that are not known here.
  json document;
  std::string build_id;
  /// One of the three that `is_known_platform` knows.
  std::string platform;
  /// Relative path of the entry point, always an executable file of `files`.
  std::string executable;
  /// Repository target path of the archive.
  std::string archive_target;
  /// Bytes, 1 to `kMaxSnapshotBytes`.
  std::uint64_t archive_length = 0;
  /// Bytes: the sum over `files`, at most `kMaxSnapshotBytes`.
  std::uint64_t expanded_length = 0;
  std::string archive_sha256;
  /// 1 to `kMaxSnapshotFiles` entries in ascending byte order of the path.
  std::map<std::string, PackageFile> files;

  /// Proves the whole document or throws `unsupported_schema`, `invalid_manifest`,
  /// `invalid_identity`, `unsafe_path`, `size_limit` or `path_collision`. A document that fails
  /// with `unsupported_schema` is a newer one: whoever stored it is to leave it alone.
  static SnapshotManifest parse(const json& document);
  /// The same without a copy: the document moves into the manifest.
  static SnapshotManifest parse(json&& document);

  /// The greatest `native_length` of a path of `files`.
  std::size_t longest_native_path() const;

  /// The file is in the inventory and has the executable flag. The spelling is exact.
  bool has_executable(std::string_view path) const;
};

/// "linux-x86_64", "windows-x86_64" or "macos-aarch64".
bool is_known_platform(std::string_view platform);

/// The common reader of a length in bytes. Throws `invalid_manifest`.
std::uint64_t size_value(const json& value);

/// The common reader of a digest: 64 lower-case hexadecimal characters. Throws `invalid_manifest`.
std::string sha256(const json& value);

}  // namespace tavro
