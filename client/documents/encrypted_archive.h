#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "documents/game_manifest.h"

namespace tavro {

/// The layout of an archive that is encrypted for `kChunkedDecoder`: a head of
/// `kEncryptedHeaderBytes`, then one ChaCha20-Poly1305 record for each chunk. The key is random and
/// made for this one file; nothing is derived.
///
///     0   32  the decoder's name, then zeros
///     32   8  length of the plain archive, little-endian
///     40   8  length of a chunk, 65536, little-endian
///     48  32  SHA-256 of the plain archive
///     80   4  the beginning of each nonce, random
///     84  12  zeros
///
/// The nonce of a record is that beginning and the chunk's number from 0, 8 bytes little-endian;
/// the associated data is the whole head, so that no record opens under another head or at another
/// place, and no shorter archive passes.
struct EncryptedHead {
  std::uint64_t archive_length = 0;
  /// Lower-case hexadecimal.
  std::string archive_sha256;
  std::array<unsigned char, 4> nonce_start{};

  /// Throws `encrypted_format` for bytes that are no such head.
  static EncryptedHead parse(std::string_view bytes);
  std::string to_bytes() const;

  std::array<unsigned char, 12> nonce(std::uint64_t chunk) const;
};

}  // namespace tavro
