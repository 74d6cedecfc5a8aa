#include "domain/product_name.h"

#include <utility>

namespace tavro {
namespace {

constexpr std::string_view kDefaultName = "Tavro";

std::string& stored_name() {
  static std::string name(kDefaultName);
  return name;
}

bool is_word_byte(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9');
}

bool is_whole_word(std::string_view text, std::size_t at, std::size_t length) {
  const std::size_t end = at + length;
  return (at == 0 || !is_word_byte(text[at - 1])) &&
         (end == text.size() || !is_word_byte(text[end]));
}

}  // namespace

const std::string& product_name() { return stored_name(); }

void set_product_name(std::string name) { stored_name() = std::move(name); }

std::string branded(std::string_view text) {
  if (product_name() == kDefaultName) return std::string(text);
  std::string out;
  std::size_t done = 0;
  for (std::size_t at = text.find(kDefaultName); at != std::string_view::npos;
       at = text.find(kDefaultName, at + 1)) {
    if (!is_whole_word(text, at, kDefaultName.size())) continue;
    out.append(text, done, at - done).append(product_name());
    done = at + kDefaultName.size();
  }
  return out.append(text, done);
}

}  // namespace tavro
