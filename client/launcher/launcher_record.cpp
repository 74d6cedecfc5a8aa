#include "launcher/launcher_record.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <string>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

constexpr std::string_view record_format = "tavro-launcher-store-v1";

void check_attempt(const json& attempt, const json& candidate) {
  nonce_identity(attempt.at("nonce").get_ref<const std::string&>());
  const auto& reference = attempt.at("reference");
  reference_shape(reference);
  // A save moves the candidate into the attempt in one step; both at once was never written here.
  require(!reference.is_null() && candidate.is_null(), "launcher_state",
          "Launcher candidate/startup state is contradictory");
}

void check_fields(const json& record) {
  require(record.at("schema_version") == 1 && record.at("format") == record_format,
          "unsupported_schema", "Unknown launcher state was preserved");
  positive_version(record.at("generation"));
  for (const auto* key : {"active", "rollback", "candidate"}) reference_shape(record.at(key));
  const auto& attempt = record.at("attempt");
  if (!attempt.is_null()) check_attempt(attempt, record.at("candidate"));
  const auto& failed = record.at("failed_candidate");
  if (!failed.is_null()) reference_shape(failed.at("reference"));
}

}  // namespace

json default_launcher_record() {
  return {{"schema_version", 1}, {"format", record_format},    {"generation", 0},
          {"active", nullptr},   {"rollback", nullptr},        {"candidate", nullptr},
          {"attempt", nullptr},  {"failed_candidate", nullptr}};
}

void check_launcher_record(const json& record) {
  read_fields("launcher_state", "Launcher installation record is malformed; it was preserved",
              [&] { check_fields(record); });
}

void reference_shape(const json& reference) {
  if (reference.is_null()) return;
  read_fields("launcher_state", "Launcher installation record is malformed; it was preserved", [&] {
    hash_identity(reference.at("manifest_sha256").get_ref<const std::string&>());
    validate_identifier(reference.at("build_id").get_ref<const std::string&>());
  });
}

void hash_identity(std::string_view name) {
  require(is_lower_hex(name, 64), "launcher_state", "Launcher manifest identity is invalid");
}

void nonce_identity(std::string_view nonce) {
  require(is_lower_hex(nonce, 32), "launcher_state", "Launcher startup identity is invalid");
}

json staging_intent(std::string_view nonce, const json& reference) {
  return {{"schema_version", 1},
          {"kind", "tavro-launcher-staging"},
          {"nonce", nonce},
          {"reference", reference}};
}

bool is_staging_intent(std::string_view bytes, std::string_view nonce) {
  try {
    const json document = parse_json(bytes, staging_intent_bytes);
    const json& reference = document.at("reference");
    reference_shape(reference);
    return !reference.is_null() && document == staging_intent(nonce, reference);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavro
