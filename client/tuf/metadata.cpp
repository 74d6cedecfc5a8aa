#include "tuf/metadata.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <optional>
#include <set>
#include <string>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

constexpr std::size_t kPathBytes = 4096;

bool all_digits(std::string_view text) {
  return std::ranges::all_of(text, [](char byte) { return byte >= '0' && byte <= '9'; });
}

bool holds_string(const json& object, std::string_view key) {
  return object.is_object() && object.contains(key) && object.at(key).is_string();
}

bool holds_object(const json& object, std::string_view key) {
  return object.is_object() && object.contains(key) && object.at(key).is_object();
}

bool holds_array(const json& object, std::string_view key) {
  return object.is_object() && object.contains(key) && object.at(key).is_array();
}

/// A decimal number without leading zeros.
bool is_plain_number(std::string_view text) {
  return !text.empty() && all_digits(text) && (text == "0" || text.front() != '0');
}

/// "1.y" or "1.y.z".
bool is_stable_version(std::string_view text) {
  if (text.size() > 32 || !text.starts_with("1.")) return false;
  text.remove_prefix(2);
  const std::size_t point = text.find('.');
  if (!is_plain_number(text.substr(0, point))) return false;
  return point == std::string_view::npos || is_plain_number(text.substr(point + 1));
}

void signatures_shape(const json& signatures) {
  std::set<std::string_view> seen;
  for (const json& signature : signatures) {
    require(holds_string(signature, "keyid") && holds_string(signature, "sig"), "invalid_metadata",
            "Signature must contain a key ID and signature string");
    require(seen.insert(signature.at("keyid").get_ref<const std::string&>()).second,
            "invalid_metadata", "Metadata repeats a signature key ID");
  }
}

void root_shape(const json& body) {
  verify_keys(body.at("keys"));
  require(!body.contains("consistent_snapshot") || body.at("consistent_snapshot").is_boolean(),
          "invalid_metadata", "consistent_snapshot must be a boolean");
  require(holds_object(body, "roles"), "invalid_metadata", "Root roles must be an object");
  const json& roles = body.at("roles");
  for (const char* role : {"root", "timestamp", "snapshot", "targets"})
    authority_shape(roles.at(role), body.at("keys"));
  if (roles.contains("mirrors")) authority_shape(roles.at("mirrors"), body.at("keys"));
}

void reference_shape(const json& reference) {
  require(reference.is_object() && reference.contains("version"), "invalid_metadata",
          "Metadata reference must contain a version");
  positive_version(reference.at("version"));
  if (reference.contains("length")) length(reference);
  if (reference.contains("hashes")) hashes_shape(reference.at("hashes"));
}

void references_shape(const json& body, std::string_view role) {
  require(holds_object(body, "meta"), "invalid_metadata", "Metadata references must be an object");
  const json& meta = body.at("meta");
  const bool described = role == "timestamp" ? meta.size() == 1 && meta.contains("snapshot.json")
                                             : meta.contains("targets.json");
  require(described, "invalid_metadata",
          "Timestamp must describe only snapshot.json; snapshot must describe targets.json");
  for (const json& reference : meta) reference_shape(reference);
}

void target_shape(const std::string& path, const json& description) {
  validate_relative_path(path, false);
  length(description);
  require(description.contains("hashes"), "invalid_hashes", "Target has no authenticated hashes");
  hashes_shape(description.at("hashes"));
  require(!description.contains("custom") || description.at("custom").is_object(),
          "invalid_metadata", "Target custom data must be an object");
}

void selector_shape(const json& record) {
  const bool by_paths = record.contains("paths");
  const bool one_selector = by_paths != record.contains("path_hash_prefixes");
  require(one_selector && record.contains("terminating") && record.at("terminating").is_boolean(),
          "invalid_metadata",
          "Delegation needs exactly one path selector and a terminating boolean");
  const json& selector = record.at(by_paths ? "paths" : "path_hash_prefixes");
  require(selector.is_array(), "invalid_metadata", "Delegation selector must be an array");
  for (const json& entry : selector) {
    require(entry.is_string(), "invalid_metadata", "Delegation selector must contain strings");
    const auto& text = entry.get_ref<const std::string&>();
    if (by_paths)
      require(text.size() <= kPathBytes, "size_limit", "Delegation pattern exceeds path limit");
    else
      hash_prefix_shape(text);
  }
}

void delegations_shape(const json& delegations) {
  require(holds_object(delegations, "keys") && holds_array(delegations, "roles"),
          "invalid_metadata", "Invalid delegations");
  verify_keys(delegations.at("keys"));
  std::set<std::string_view> names;
  for (const json& record : delegations.at("roles")) {
    require(holds_string(record, "name"), "invalid_metadata", "Delegation must have a role name");
    const auto& name = record.at("name").get_ref<const std::string&>();
    require(!name.empty() && name.size() <= kPathBytes, "size_limit",
            "Delegated role name exceeds its bound");
    require(!is_top_level_role(name) && names.insert(name).second, "invalid_metadata",
            "Delegated role names must be unique and non-top-level");
    authority_shape(record, delegations.at("keys"));
    selector_shape(record);
  }
}

void targets_shape(const json& body) {
  require(holds_object(body, "targets"), "invalid_metadata", "Targets must be an object");
  for (const auto& [path, description] : body.at("targets").items())
    target_shape(path, description);
  if (body.contains("delegations")) delegations_shape(body.at("delegations"));
}

void shape_body(const json& document, std::string_view role) {
  require(holds_array(document, "signatures") && holds_object(document, "signed"),
          "invalid_metadata", "Metadata must contain a signed object and signature array");
  signatures_shape(document.at("signatures"));
  const json& body = document.at("signed");
  require(body.at("_type") == role, "metadata_type", "Unexpected metadata type");
  require(is_stable_version(body.at("spec_version").get_ref<const std::string&>()),
          "unsupported_spec",
          "A stable TUF 1.x[.y] speci"
          "fication version is required");
  positive_version(body.at("version"));
  parse_tuf_time(body.at("expires").get_ref<const std::string&>());
  if (role == "root") root_shape(body);
  if (role == "snapshot" || role == "timestamp") references_shape(body, role);
  if (role == "targets") targets_shape(body);
}

/// The number in these digits, which have been proved to be digits and fit.
int number(std::string_view digits) {
  int value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

int time_field(std::string_view text, std::size_t offset, std::size_t width) {
  const std::string_view digits = text.substr(offset, width);
  require(all_digits(digits), "invalid_expiry", "Timestamp fields must contain decimal digits");
  return number(digits);
}

bool has_time_form(std::string_view text) {
  if (text.size() < 20 || text.size() > 30) return false;
  const bool separated = text[4] == '-' && text[7] == '-' && text[10] == 'T' && text[13] == ':' &&
                         text[16] == ':' && text.back() == 'Z';
  return separated && (text.size() == 20 || (text.size() >= 22 && text[19] == '.'));
}

/// One to nine digits of a second; those beyond microseconds are cut.
std::chrono::microseconds fraction_of(std::string_view digits) {
  require(all_digits(digits), "invalid_expiry", "Invalid fractional second");
  std::string six(digits.substr(0, 6));
  six.resize(6, '0');
  return std::chrono::microseconds(number(six));
}

}  // namespace

void shape(const json& document, std::string_view role) {
  read_fields("invalid_metadata",
              "Metadata is missing a required field or has an invalid field type",
              [&] { shape_body(document, role); });
}

void authority_shape(const json& record, const json& keys) {
  require(holds_array(record, "keyids") && record.contains("threshold"), "invalid_metadata",
          "Invalid signing authority");
  positive_version(record.at("threshold"));
  for (const json& id : record.at("keyids"))
    require(id.is_string() && keys.contains(id.get_ref<const std::string&>()), "invalid_metadata",
            "Role references a key absent from its delegator");
}

void hashes_shape(const json& hashes) {
  require(hashes.is_object() && !hashes.empty(), "invalid_hashes",
          "Hashes must be a nonempty object");
  const auto is_hex = [](char byte) {
    return std::string_view("0123456789abcdefABCDEF").find(byte) != std::string_view::npos;
  };
  for (const auto& [name, value] : hashes.items()) {
    require(name == "sha256" || name == "sha512", "unsupported_hash",
            "Only SHA-256 and SHA-512 hashes are supported");
    require(value.is_string(), "invalid_hashes", "Hash must be a hexadecimal string");
    const auto& text = value.get_ref<const std::string&>();
    const std::size_t expected = name == "sha256" ? 64 : 128;
    require(text.size() == expected && std::ranges::all_of(text, is_hex), "invalid_hashes",
            "Hash has an invalid length or hexadecimal encoding");
  }
}

bool is_top_level_role(std::string_view role) {
  return role == "root" || role == "timestamp" || role == "snapshot" || role == "targets";
}

void hash_prefix_shape(std::string_view prefix) {
  require(!prefix.empty() && prefix.size() <= 64 && is_lower_hex(prefix, prefix.size()),
          "invalid_metadata", "Invalid delegation hash prefix");
}

unsigned long long length(const json& description) {
  require(description.is_object() && description.contains("length"), "invalid_metadata",
          "File description must contain a length");
  const json& value = description.at("length");
  const bool nonnegative =
      value.is_number_unsigned() || (value.is_number_integer() && value.get<long long>() >= 0);
  require(nonnegative, "invalid_length", "Length must be a nonnegative integer");
  return value.get<unsigned long long>();
}

TufTime parse_tuf_time(std::string_view text) {
  require(has_time_form(text), "invalid_expiry", "Expiry must use a UTC ISO-8601 timestamp");
  const int year = time_field(text, 0, 4);
  const int month = time_field(text, 5, 2);
  const int day = time_field(text, 8, 2);
  const int hour = time_field(text, 11, 2);
  const int minute = time_field(text, 14, 2);
  const int second = time_field(text, 17, 2);
  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  require(date.ok() && hour < 24 && minute < 60 && second < 60, "invalid_expiry",
          "Invalid UTC calendar time");
  TufTime time = std::chrono::sys_days(date);
  time += std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second);
  if (text.size() > 20) time += fraction_of(text.substr(20, text.size() - 21));
  return time;
}

bool has_expired(TufTime expires, std::chrono::system_clock::time_point now) {
  return expires <= std::chrono::floor<std::chrono::microseconds>(now);
}

json online_keys(const json& root_document) {
  const json& body = root_document.at("signed");
  json result = json::object();
  for (const char* role : {"timestamp", "snapshot"}) {
    json& records = result[role] = json::object();
    for (const json& id : body.at("roles").at(role).at("keyids")) {
      const auto& name = id.get_ref<const std::string&>();
      records[name] = body.at("keys").at(name);
    }
  }
  return result;
}

}  // namespace tavro
