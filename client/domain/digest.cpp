#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <mutex>
#include <utility>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/unique_fd.h"

namespace tavro {
namespace {

using DigestContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;

DigestContext started(std::string_view name, std::string_view failure) {
  const EVP_MD* method = algorithm(name);
  DigestContext context(EVP_MD_CTX_new());
  require(context && EVP_DigestInit_ex(context.get(), method, nullptr) == 1, "crypto_failure",
          failure);
  return context;
}

std::string finished(EVP_MD_CTX* context, std::string_view failure) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned int size = 0;
  require(context != nullptr && EVP_DigestFinal_ex(context, bytes.data(), &size) == 1,
          "crypto_failure", failure);
  return hex({bytes.data(), size});
}

UniqueFd open_for_verification(const std::filesystem::path& path) {
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  require(descriptor >= 0, "file_read",
          [&] { return "Could not open file for verification: " + path_utf8(path); });
  return UniqueFd(descriptor);
}

// A device or a pipe has no end that a digest could reach.
unsigned long long ordinary_size(int file) {
  struct stat status {};
  require(::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0,
          "file_read", "Error reading file during verification");
  return static_cast<unsigned long long>(status.st_size);
}

// Shorter than the block only at the end of the file.
std::size_t read_block(int file, std::span<char> block) {
  std::size_t filled = 0;
  while (filled < block.size()) {
    const ssize_t count = read_some(file, block.data() + filled, block.size() - filled);
    require(count >= 0, "file_read", "Error reading file during verification");
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  fail("invalid_hex", "Invalid hexadecimal character");
}

}  // namespace

void initialize_client_runtime() {
  static std::once_flag once;
  std::call_once(once, [] {
    // The library lives as long as the process; freeing its tables one by one costs each short
    // command a tenth of its time.
    require(OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr) == 1,
            "crypto_failure", "Cannot initialize native cryptography");
  });
}

std::string hex(std::span<const unsigned char> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::vector<unsigned char> unhex(std::string_view text, std::size_t max_text) {
  require(text.size() % 2 == 0 && text.size() <= max_text, "invalid_hex",
          "Invalid hexadecimal data");
  std::vector<unsigned char> bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t at = 0; at < text.size(); at += 2) {
    const int high = hex_value(text[at]);
    bytes.push_back(static_cast<unsigned char>(high * 16 + hex_value(text[at + 1])));
  }
  return bytes;
}

bool is_lower_hex(std::string_view text, std::size_t length) {
  return text.size() == length &&
         text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

const evp_md_st* algorithm(std::string_view name) {
  if (name == "sha256") return EVP_sha256();
  if (name == "sha512") return EVP_sha512();
  fail("unsupported_hash", "Only SHA-256 and SHA-512 hashes are supported");
}

std::string digest(std::string_view data, std::string_view name) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned int size = 0;
  require(EVP_Digest(data.data(), data.size(), bytes.data(), &size, algorithm(name), nullptr) == 1,
          "crypto_failure", "Could not hash content");
  return hex({bytes.data(), size});
}

std::string digest_file(const std::filesystem::path& path, std::string_view name) {
  return digest_file_progress(path, name, {});
}

std::string digest_file_progress(const std::filesystem::path& path, std::string_view name,
                                 const Progress& progress) {
  const UniqueFd file = open_for_verification(path);
  const DigestContext context = started(name, "Could not initialize file hash");
  const unsigned long long total = ordinary_size(file.get());
  unsigned long long done = 0;
  const auto report = [&] {
    require(!progress || progress(done, total), "cancelled", "File verification cancelled");
  };
  report();
  std::array<char, kStreamBlock> block;
  std::size_t count = 0;
  do {
    count = read_block(file.get(), block);
    require(EVP_DigestUpdate(context.get(), block.data(), count) == 1, "crypto_failure",
            "Could not hash file");
    done += count;
    require(!progress || done <= total, "content_mismatch",
            "File grew beyond its verification bound");
    report();
  } while (count == block.size());
  return finished(context.get(), "Could not finish file hash");
}

struct DigestState::Impl {
  DigestContext context;
};

DigestState::DigestState(std::string_view name)
    : impl_(std::make_unique<Impl>(
          Impl{started(name, "Cannot initialize incremental target hash")})) {}
DigestState::DigestState(DigestState&&) noexcept = default;
DigestState& DigestState::operator=(DigestState&&) noexcept = default;
DigestState::~DigestState() = default;

void DigestState::update(std::string_view bytes) {
  require(EVP_DigestUpdate(impl_->context.get(), bytes.data(), bytes.size()) == 1, "crypto_failure",
          "Cannot update target hash");
}

std::string DigestState::value() const {
  constexpr std::string_view kFailure = "Cannot snapshot incremental target hash";
  const DigestContext copy(EVP_MD_CTX_new());
  require(copy && EVP_MD_CTX_copy_ex(copy.get(), impl_->context.get()) == 1, "crypto_failure",
          kFailure);
  return finished(copy.get(), kFailure);
}

std::string random_id() {
  std::array<unsigned char, 16> bytes{};
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "crypto_failure",
          "Could not create random identifier");
  return hex(bytes);
}

}  // namespace tavro
