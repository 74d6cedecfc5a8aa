#include "domain/json.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>
#include <vector>

#include "domain/error.h"

namespace tavro {
namespace {

constexpr std::size_t kMaxDepth = 64;

// Builds the value from parse events. The library's own reader with a filter looks through the
// whole parent each time a child ends, which is quadratic in a list of a hundred thousand files.
class StrictReader final : public nlohmann::json_sax<json> {
 public:
  json take() { return std::move(root_); }

  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(json::number_integer_t value) override { return put(value); }
  bool number_unsigned(json::number_unsigned_t value) override { return put(value); }
  bool string(std::string& value) override { return put(std::move(value)); }
  bool start_object(std::size_t) override { return open(json::value_t::object); }
  bool start_array(std::size_t) override { return open(json::value_t::array); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  bool number_float(json::number_float_t, const std::string&) override {
    check_depth();
    fail("invalid_number", "Floating point numbers are not allowed in protocol data");
  }

  bool binary(json::binary_t&) override {
    fail("invalid_json", "Binary values are not allowed in protocol data");
  }

  bool key(std::string& name) override {
    check_depth();
    auto& members = open_.back()->get_ref<json::object_t&>();
    const auto [member, fresh] = members.try_emplace(std::move(name));
    require(fresh, "duplicate_key", "JSON contains a duplicate object key");
    member_ = &member->second;
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const json::exception& problem) override {
    fail("invalid_json", problem.what());
  }

 private:
  void check_depth() const {
    require(open_.size() <= kMaxDepth, "depth_limit", "JSON nesting exceeds 64 levels");
  }

  json& place(json value) {
    check_depth();
    if (open_.empty()) return root_ = std::move(value);
    if (open_.back()->is_array()) return open_.back()->emplace_back(std::move(value));
    return *member_ = std::move(value);
  }

  bool put(json value) {
    place(std::move(value));
    return true;
  }

  // The address stays good while the container is open: nothing is added to its parent until then.
  bool open(json::value_t type) {
    open_.push_back(&place(json(type)));
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  json root_;
  std::vector<json*> open_;
  json* member_ = nullptr;
};

void append_quoted(std::string& out, std::string_view text) {
  out += '"';
  for (const char byte : text) {
    if (byte == '\\' || byte == '"') out += '\\';
    out += byte;
  }
  out += '"';
}

void append_canonical(std::string& out, const json& value);

void append_members(std::string& out, const json& object) {
  const char* separator = "";
  for (const auto& [key, member] : object.items()) {
    out += std::exchange(separator, ",");
    append_quoted(out, key);
    out += ':';
    append_canonical(out, member);
  }
}

void append_elements(std::string& out, const json& array) {
  const char* separator = "";
  for (const json& element : array) {
    out += std::exchange(separator, ",");
    append_canonical(out, element);
  }
}

void append_canonical(std::string& out, const json& value) {
  switch (value.type()) {
    case json::value_t::null:
    case json::value_t::boolean:
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      out += value.dump();
      return;
    case json::value_t::string:
      append_quoted(out, value.get_ref<const std::string&>());
      return;
    case json::value_t::array:
      out += '[';
      append_elements(out, value);
      out += ']';
      return;
    case json::value_t::object:
      out += '{';
      append_members(out, value);
      out += '}';
      return;
    default:
      fail("invalid_number", "Cannot canonicalize floating point data");
  }
}

}  // namespace

json parse_json(std::string_view text, std::size_t max_bytes) {
  require(text.size() <= max_bytes, "size_limit", "JSON exceeds its size limit");
  StrictReader reader;
  try {
    json::sax_parse(text.begin(), text.end(), &reader);
  } catch (const json::exception& problem) {
    fail("invalid_json", problem.what());
  }
  // The library takes a NUL byte for the end of the text, and asks for nothing behind it.
  require(text.find('\0') == std::string_view::npos, "invalid_json",
          "JSON goes on behind its end with a NUL byte");
  return reader.take();
}

std::string canonical_json(const json& value) {
  std::string out;
  append_canonical(out, value);
  return out;
}

std::string quote(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  append_quoted(out, text);
  return out;
}

unsigned long long positive_version(const json& value) {
  require(value.is_number_unsigned() ||
              (value.is_number_integer() && value.get<json::number_integer_t>() > 0),
          "invalid_version", "Metadata version must be a positive integer");
  const auto version = value.get<json::number_unsigned_t>();
  require(version != 0, "invalid_version", "Metadata version must be positive");
  return version;
}

bool is_integer(const json& value, unsigned long long expected) {
  if (value.is_number_unsigned()) return value.get<json::number_unsigned_t>() == expected;
  if (!value.is_number_integer()) return false;
  return std::cmp_equal(value.get<json::number_integer_t>(), expected);
}

bool has_integer(const json& object, std::string_view key, unsigned long long expected) {
  const json* member = find_member(object, key);
  return member != nullptr && is_integer(*member, expected);
}

bool has_text(const json& object, std::string_view key, std::string_view expected) {
  const json* member = find_member(object, key);
  return member != nullptr && member->is_string() &&
         member->get_ref<const std::string&>() == expected;
}

bool has_exactly(const json& object, std::initializer_list<std::string_view> keys) {
  return object.is_object() && object.size() == keys.size() &&
         std::all_of(keys.begin(), keys.end(),
                     [&](std::string_view key) { return object.contains(key); });
}

const json* find_member(const json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto member = object.find(key);
  return member == object.end() ? nullptr : &*member;
}

}  // namespace tavro
