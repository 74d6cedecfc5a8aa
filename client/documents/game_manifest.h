#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "documents/manifest.h"
#include "documents/presentation.h"
#include "domain/crypto.h"

namespace tavro {

/// The decoder whose encrypted form has a fixed layout: 96 bytes, then one authenticated record for
/// each chunk of `kEncryptedChunkBytes` of the plain archive, of which the last may be shorter.
inline constexpr std::string_view kChunkedDecoder = "tavro-chacha20-poly1305-v1";
inline constexpr std::uint64_t kEncryptedChunkBytes = 65536;
inline constexpr std::uint64_t kEncryptedHeaderBytes = 96;
inline constexpr std::uint64_t kArchiveKeyBytes = 32;

/// The length of that form for a plain archive of at most `kMaxSnapshotBytes`.
constexpr std::uint64_t chunked_archive_length(std::uint64_t archive_length) {
  const std::uint64_t chunks = (archive_length + kEncryptedChunkBytes - 1) / kEncryptedChunkBytes;
  return archive_length + kAuthenticationTagBytes * chunks + kEncryptedHeaderBytes;
}

/// The archive of a release in encrypted form, beside the plain one.
struct EncryptedArchive {
  /// Name of the decoder, 1 to 80 bytes.
  std::string format;
  /// Repository target paths and digests of the encrypted file and of its key file, which always
  /// has `kArchiveKeyBytes`.
  std::string artifact_target;
  std::string artifact_sha256;
  std::string key_target;
  std::string key_sha256;
  /// Bytes.
  std::uint64_t artifact_length = 0;
};

/// A way from the full archive of one older build to the archive of this one.
struct DirectPatch {
  /// Name of the decoder, an identifier.
  std::string format;
  std::string source_build_id;
  /// Repository target paths and digests of the older archive and of the patch file.
  std::string source_target;
  std::string source_sha256;
  std::string artifact_target;
  std::string artifact_sha256;
  /// Bytes, 1 to `kMaxSnapshotBytes` each.
  std::uint64_t source_length = 0;
  std::uint64_t artifact_length = 0;
};

/// One release of one game: a snapshot with what a user sees of it and what it needs.
struct GameManifest : SnapshotManifest {
  std::string game_id;
  /// 1 to 200 bytes.
  std::string display_name;
  /// At most 16384 bytes without control characters but line breaks; empty if there are none.
  std::string release_notes;
  GamePresentation presentation;
  bool sdk_required = false;
  /// At most 8, from different builds, in the order of the document.
  std::vector<DirectPatch> patches;
  std::optional<EncryptedArchive> encrypted;

  /// Proves the whole document or throws: `unsupported_schema` (leave the stored document alone),
  /// `launcher_incompatible`, `sdk_incompatible`, `invalid_manifest`, `invalid_presentation`,
  /// `invalid_identity`, `unsafe_path`, `size_limit`, and the codes of `SnapshotManifest::parse`.
  static GameManifest parse(const json& document);
  /// The same without a copy: the document moves into the manifest.
  static GameManifest parse(json&& document);
};

}  // namespace tavro
