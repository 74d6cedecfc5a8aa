// Texts that the strict reader takes or refuses: a recogniser that shares nothing with it must say
// the same of every text.

#include "domain/json.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "domain/error.h"

namespace {

using namespace tavro;

void must(bool condition) {
  if (!condition) std::abort();
}

/// Reads by recursive descent; each function answers whether it found what it is named for.
class Recogniser {
 public:
  explicit Recogniser(std::string_view text) : rest_(text) {}

  bool document() {
    take("\xef\xbb\xbf");
    return value(0) && (space(), rest_.empty());
  }

 private:
  // A container's own depth is that of the place where it stands.
  static constexpr int kDepth = 64;

  bool take(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }

  void space() {
    while (take(" ") || take("\t") || take("\n") || take("\r")) continue;
  }

  bool value(int depth) {
    space();
    if (depth > kDepth || rest_.empty()) return false;
    std::string ignored;
    switch (rest_.front()) {
      case '{':
        return object(depth);
      case '[':
        return array(depth);
      case '"':
        return string(ignored);
      default:
        return take("true") || take("false") || take("null") || integer();
    }
  }

  bool object(int depth) {
    take("{"), space();
    if (take("}")) return true;
    std::set<std::string> keys;
    do {
      std::string key;
      if (space(), depth == kDepth || !string(key) || !keys.insert(key).second) return false;
      if (space(), !take(":") || !value(depth + 1)) return false;
      space();
    } while (take(","));
    return take("}");
  }

  bool array(int depth) {
    take("["), space();
    if (take("]")) return true;
    do {
      if (!value(depth + 1)) return false;
      space();
    } while (take(","));
    return take("]");
  }

  bool integer() {
    const bool negative = take("-");
    const std::string_view digits = rest_.substr(0, rest_.find_first_not_of("0123456789"));
    if (digits.empty() || (digits.size() > 1 && digits.front() == '0')) return false;
    rest_.remove_prefix(digits.size());
    const std::string_view most = negative ? "9223372036854775808" : "18446744073709551615";
    const bool fits =
        digits.size() < most.size() || (digits.size() == most.size() && digits <= most);
    return fits && (rest_.empty() || std::string_view(".eE").find(rest_.front()) == rest_.npos);
  }

  bool string(std::string& out) {
    if (!take("\"")) return false;
    while (!take("\"")) {
      if (!(take("\\") ? escape(out) : character(out))) return false;
    }
    return true;
  }

  bool escape(std::string& out) {
    static constexpr std::string_view kLetters = "\"\\/bfnrt", kMeanings = "\"\\/\b\f\n\r\t";
    if (take("u")) return code_point(out);
    const std::size_t place = rest_.empty() ? rest_.npos : kLetters.find(rest_.front());
    if (place == rest_.npos) return false;
    rest_.remove_prefix(1);
    out += kMeanings[place];
    return true;
  }

  bool hex4(std::uint32_t& unit) {
    unit = 0;
    for (int count = 0; count < 4; ++count) {
      const std::string_view digits = "0123456789abcdef0123456789ABCDEF";
      const std::size_t digit = rest_.empty() ? rest_.npos : digits.find(rest_.front());
      if (digit == rest_.npos) return false;
      rest_.remove_prefix(1);
      unit = unit * 16 + static_cast<std::uint32_t>(digit % 16);
    }
    return true;
  }

  bool code_point(std::string& out) {
    std::uint32_t unit = 0, low = 0;
    if (!hex4(unit) || (unit >= 0xdc00 && unit <= 0xdfff)) return false;
    if (unit >= 0xd800 && unit <= 0xdbff) {
      if (!take("\\u") || !hex4(low) || low < 0xdc00 || low > 0xdfff) return false;
      unit = 0x10000 + ((unit - 0xd800) << 10) + (low - 0xdc00);
    }
    const int tail = unit < 0x80 ? 0 : unit < 0x800 ? 1 : unit < 0x10000 ? 2 : 3;
    static constexpr unsigned kLead[] = {0, 0xc0, 0xe0, 0xf0};
    out += static_cast<char>(kLead[tail] | unit >> 6 * tail);
    for (int left = tail; left-- > 0;) out += static_cast<char>(0x80 | (unit >> 6 * left & 0x3f));
    return true;
  }

  /// One character that stands for itself, in its shortest UTF-8 form.
  bool character(std::string& out) {
    const auto byte = [this](std::size_t at) {
      return at < rest_.size() ? static_cast<unsigned char>(rest_[at]) : 0u;
    };
    const unsigned lead = byte(0);
    if (lead < 0x20 || (lead >= 0x80 && lead < 0xc2) || lead > 0xf4) return false;
    const std::size_t size = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    for (std::size_t at = 1; at < size; ++at)
      if (byte(at) < 0x80 || byte(at) > 0xbf) return false;
    // Overlong forms, surrogates, and what lies beyond the last plane.
    if (lead == 0xe0 && byte(1) < 0xa0) return false;
    if (lead == 0xed && byte(1) > 0x9f) return false;
    if (lead == 0xf0 && byte(1) < 0x90) return false;
    if (lead == 0xf4 && byte(1) > 0x8f) return false;
    out += rest_.substr(0, size);
    rest_.remove_prefix(size);
    return true;
  }

  std::string_view rest_;
};

bool accepted(std::string_view text, json& value) {
  try {
    value = parse_json(text, text.size());
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  json value, again;
  const bool taken = accepted(text, value);
  must(taken == Recogniser(text).document());
  if (!taken) return 0;
  must(accepted(value.dump(), again) && again == value);
  must(canonical_json(again) == canonical_json(value));
  return 0;
}
