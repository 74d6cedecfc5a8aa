#include "domain/identifier.h"

#include "domain/error.h"
#include "domain/relative_path.h"

namespace tavro {

void validate_identifier(std::string_view id) {
  constexpr std::string_view kAllowed = "abcdefghijklmnopqrstuvwxyz0123456789-.";
  require(!id.empty() && id.size() <= 80 && id != "." && id != ".." &&
              id.find_first_not_of(kAllowed) == std::string_view::npos,
          "invalid_identity",
          "Game and build IDs use lower-case letters, digits, dots and hyphens");
  validate_relative_path(id, true);
}

}  // namespace tavro
