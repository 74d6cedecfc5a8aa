#pragma once

#include <filesystem>
#include <string>

#include "domain/progress.h"
#include "publisher/archive.h"

namespace tavro {

/// What the encrypted form of an archive came to.
struct EncryptionFigures {
  unsigned long long length = 0;
  std::string sha256;
  /// Of the file that holds the key.
  std::string key_sha256;
};

/// Writes the encrypted form of an archive (see documents/encrypted_archive.h) as a new file, under
/// a new random key, which goes into a file of its own that nobody but its owner reads. Neither key
/// nor nonce comes from a caller, so that no key ever serves for two archives. The archive must be
/// the one that `plain` describes: `content_mismatch`. Both files are durable on return, their
/// names when the caller syncs the folder; a failure may leave the key's file. Throws as
/// `OutputFile` and `atomic_create`, `file_read`, `crypto_failure` and `cancelled`.
///
/// Memory: two blocks of 65536 bytes.
EncryptionFigures encrypt_archive(const std::filesystem::path& archive, const ArchiveFigures& plain,
                                  const std::filesystem::path& artifact,
                                  const std::filesystem::path& key_file, const Progress& progress);

}  // namespace tavro
