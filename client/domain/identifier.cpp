#include "domain/identifier.h"

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

constexpr std::size_t nonce_size = 32;

}  // namespace

void validate_identifier(std::string_view id) {
  constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyz0123456789-.";
  require(!id.empty() && id.size() <= 80 && id != "." && id != ".." &&
              id.find_first_not_of(kAllowed) == std::string_view::npos,
          "invalid_identity",
          "Game and build IDs use lower-case letters, digits, dots and hyphens");
  validate_relative_path(id, true);
}

std::string_view nonce_between(std::string_view name, std::string_view prefix,
                               std::string_view suffix) {
  if (name.size() != prefix.size() + 1 + nonce_size + suffix.size()) return {};
  const std::string_view nonce = name.substr(prefix.size() + 1, nonce_size);
  const bool framed =
      name.starts_with(prefix) && name[prefix.size()] == '.' && name.ends_with(suffix);
  return framed && is_lower_hex(nonce, nonce_size) ? nonce : std::string_view();
}

}  // namespace tavro
