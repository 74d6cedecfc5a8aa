#include "documents/encrypted_archive.h"

#include <algorithm>

#include "domain/error.h"

namespace tavro {
namespace {

constexpr std::size_t length_offset = 32;
constexpr std::size_t chunk_offset = 40;
constexpr std::size_t digest_offset = 48;
constexpr std::size_t digest_bytes = 32;
constexpr std::size_t nonce_offset = 80;
constexpr std::size_t nonce_start_bytes = 4;
constexpr int byte_bits = 8;

template <typename Bytes>
void put_number(Bytes& bytes, std::size_t offset, std::uint64_t number) {
  for (std::size_t i = 0; i < sizeof number; ++i)
    bytes[offset + i] = static_cast<typename Bytes::value_type>((number >> (byte_bits * i)) & 0xFF);
}

std::uint64_t number_at(std::string_view bytes, std::size_t offset) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < sizeof number; ++i)
    number |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (byte_bits * i);
  return number;
}

}  // namespace

EncryptedHead EncryptedHead::parse(std::string_view bytes) {
  require(bytes.size() == kEncryptedHeaderBytes &&
              number_at(bytes, chunk_offset) == kEncryptedChunkBytes,
          "encrypted_format", "The encrypted archive has no known head");
  EncryptedHead head;
  head.archive_length = number_at(bytes, length_offset);
  const auto* start = reinterpret_cast<const unsigned char*>(bytes.data());
  head.archive_sha256 = hex({start + digest_offset, digest_bytes});
  std::copy_n(start + nonce_offset, nonce_start_bytes, head.nonce_start.begin());
  // Name and zeros have one form only.
  require(head.to_bytes() == bytes, "encrypted_format", "The encrypted archive has no known head");
  return head;
}

std::string EncryptedHead::to_bytes() const {
  std::string bytes(kEncryptedHeaderBytes, '\0');
  bytes.replace(0, kChunkedDecoder.size(), kChunkedDecoder);
  put_number(bytes, length_offset, archive_length);
  put_number(bytes, chunk_offset, kEncryptedChunkBytes);
  const auto digest = unhex(archive_sha256, 2 * digest_bytes);
  require(digest.size() == digest_bytes, "encrypted_format",
          "The head of an encrypted archive needs the digest of the plain one");
  std::copy(digest.begin(), digest.end(), bytes.begin() + digest_offset);
  std::copy(nonce_start.begin(), nonce_start.end(), bytes.begin() + nonce_offset);
  return bytes;
}

std::array<unsigned char, 12> EncryptedHead::nonce(std::uint64_t chunk) const {
  std::array<unsigned char, 12> nonce{};
  std::copy(nonce_start.begin(), nonce_start.end(), nonce.begin());
  put_number(nonce, nonce_start_bytes, chunk);
  return nonce;
}

}  // namespace tavro
