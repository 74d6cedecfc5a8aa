#include "launcher/launcher_record.h"

#include <exception>
#include <initializer_list>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

constexpr std::string_view record_format = "tavro-launcher-store-v1";

/// Runs a reader under the words for a record that is not as this client writes it.
template <typename Reader>
auto read_record(Reader&& reader) {
  return read_fields("launcher_state",
                     "Launcher installation record is malformed; it was preserved",
                     std::forward<Reader>(reader));
}

json members_beside(const json& document, std::initializer_list<const char*> known) {
  json further = document;
  for (const char* key : known) further.erase(key);
  return further.empty() ? json() : further;
}

/// The members that are known, and those that are not.
json with_further(json members, const json& further) {
  if (!further.is_null()) members.update(further);
  return members;
}

template <typename Value>
json or_null(const std::optional<Value>& value) {
  return value ? value->to_json() : json();
}

std::optional<LauncherAttempt> read_attempt(const json& record) {
  const json& attempt = record.at("attempt");
  if (attempt.is_null()) return std::nullopt;
  nonce_identity(text_member(attempt, "nonce"));
  // A save moves the candidate into the attempt in one step; both at once was never written here.
  require(optional_reference(attempt.at("reference")) && record.at("candidate").is_null(),
          "launcher_state", "Launcher candidate/startup state is contradictory");
  return LauncherAttempt::parse(attempt);
}

LauncherRecord read_launcher_record(const json& document) {
  require(document.at("schema_version") == 1 && document.at("format") == record_format,
          "unsupported_schema", "Unknown launcher state was preserved");
  LauncherRecord record;
  record.generation = positive_version(document.at("generation"));
  record.active = optional_reference(document.at("active"));
  record.rollback = optional_reference(document.at("rollback"));
  record.candidate = optional_reference(document.at("candidate"));
  record.attempt = read_attempt(document);
  const json& failed = document.at("failed_candidate");
  if (!failed.is_null()) record.failed_candidate = LauncherFailure::parse(failed);
  record.further =
      members_beside(document, {"schema_version", "format", "generation", "active", "rollback",
                                "candidate", "attempt", "failed_candidate"});
  return record;
}

/// Takes a text out of what is further there. Nobody is bound to these members, so that a value of
/// another kind stays what it is.
std::string take_text(json& further, const char* key) {
  const json* member = find_member(further, key);
  if (member == nullptr || !member->is_string()) return {};
  auto text = member->get<std::string>();
  // An empty one is kept among what is further there, so that it is written again.
  if (!text.empty()) further.erase(key);
  return text;
}

}  // namespace

LauncherReference LauncherReference::parse(const json& document) {
  return read_record([&] {
    LauncherReference reference;
    reference.manifest_sha256 = text_member(document, "manifest_sha256");
    hash_identity(reference.manifest_sha256);
    reference.build_id = text_member(document, "build_id");
    validate_identifier(reference.build_id);
    reference.further = members_beside(document, {"manifest_sha256", "build_id"});
    return reference;
  });
}

json LauncherReference::to_json() const {
  return with_further({{"manifest_sha256", manifest_sha256}, {"build_id", build_id}}, further);
}

LauncherAttempt LauncherAttempt::parse(const json& document) {
  return read_record([&] {
    LauncherAttempt attempt;
    attempt.nonce = text_member(document, "nonce");
    nonce_identity(attempt.nonce);
    attempt.reference = LauncherReference::parse(document.at("reference"));
    attempt.further = members_beside(document, {"nonce", "reference"});
    return attempt;
  });
}

json LauncherAttempt::to_json() const {
  return with_further({{"nonce", nonce}, {"reference", reference.to_json()}}, further);
}

LauncherFailure LauncherFailure::parse(const json& document) {
  return read_record([&] {
    LauncherFailure failure;
    failure.reference = optional_reference(document.at("reference"));
    failure.further = members_beside(document, {"reference"});
    failure.problem = take_text(failure.further, "problem");
    failure.code = take_text(failure.further, "code");
    failure.reason = take_text(failure.further, "reason");
    if (failure.further.empty()) failure.further = nullptr;
    return failure;
  });
}

json LauncherFailure::to_json() const {
  json document = {{"reference", or_null(reference)}};
  for (const auto& [key, text] :
       {std::pair("problem", problem), std::pair("code", code), std::pair("reason", reason)})
    if (!text.empty()) document[key] = text;
  return with_further(std::move(document), further);
}

LauncherRecord LauncherRecord::parse(const json& document) {
  return read_record([&] { return read_launcher_record(document); });
}

json LauncherRecord::to_json() const {
  return with_further({{"schema_version", 1},
                       {"format", record_format},
                       {"generation", generation},
                       {"active", or_null(active)},
                       {"rollback", or_null(rollback)},
                       {"candidate", or_null(candidate)},
                       {"attempt", or_null(attempt)},
                       {"failed_candidate", or_null(failed_candidate)}},
                      further);
}

std::optional<LauncherReference> optional_reference(const json& document) {
  if (document.is_null()) return std::nullopt;
  return LauncherReference::parse(document);
}

LauncherReference present_reference(const json& document, std::string_view missing) {
  auto reference = optional_reference(document);
  require(reference.has_value(), "launcher_missing", missing);
  return *std::move(reference);
}

void hash_identity(std::string_view name) {
  require(is_lower_hex(name, 64), "launcher_state", "Launcher manifest identity is invalid");
}

void nonce_identity(std::string_view nonce) {
  require(is_lower_hex(nonce, 32), "launcher_state", "Launcher startup identity is invalid");
}

json StagingIntent::to_json() const {
  return {{"schema_version", 1},
          {"kind", "tavro-launcher-staging"},
          {"nonce", nonce},
          {"reference", reference.to_json()}};
}

bool is_staging_intent(std::string_view bytes, std::string_view nonce) {
  try {
    const json document = parse_json(bytes, staging_intent_bytes);
    const auto reference = LauncherReference::parse(document.at("reference"));
    return document == StagingIntent{std::string(nonce), reference}.to_json();
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavro
