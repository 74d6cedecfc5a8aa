#include "distributor/agreement_decisions.h"

#include "distributor/distributor.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char kind[] = "tavro-agreement-decision";
constexpr std::size_t decision_bytes = 4096;
constexpr std::size_t digest_characters = 64;

AgreementDecision read_decision(const json& document) {
  AgreementDecision decision;
  decision.id = text_member(document, "id");
  decision.version = text_member(document, "version");
  for (const std::string* name : {&decision.id, &decision.version}) validate_identifier(*name);
  decision.text_sha256 = text_member(document, "text_sha256");
  require(is_lower_hex(decision.text_sha256, digest_characters), "invalid_state",
          "The decision names no text");
  decision.agreed = document.at("agreed").get<bool>();
  decision.age =
      document.at("age_16_or_older").get<bool>() ? AgeGiven::sixteen_or_older : AgeGiven::no;
  decision.decided = document.at("decided").get<std::uint64_t>();
  return decision;
}

}  // namespace

bool AgreementDecision::covers(const Agreement& agreement) const {
  const bool old_enough = !agreement.minimum_age || age == AgeGiven::sixteen_or_older;
  return agreed && id == agreement.id && version == agreement.version &&
         text_sha256 == agreement.text_sha256 && old_enough;
}

AgreementDecision AgreementDecision::parse(const json& document) {
  require(has_text(document, "kind", kind), "invalid_state", "This is no decision of a player");
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "The decision was recorded by a newer launcher, and stays");
  return read_fields("invalid_state", "The decision is damaged",
                     [&] { return read_decision(document); });
}

json AgreementDecision::to_json() const {
  return {{"schema_version", 1},
          {"kind", kind},
          {"id", id},
          {"version", version},
          {"text_sha256", text_sha256},
          {"agreed", agreed},
          {"age_16_or_older", age == AgeGiven::sixteen_or_older},
          {"decided", decided}};
}

AgreementDecisions::AgreementDecisions(const fs::path& data_root)
    : folder_(data_folder(data_root) / "agreements") {
  require_complete_native_install(folder_.parent_path());
}

fs::path AgreementDecisions::path_of(std::string_view id) const {
  validate_identifier(id);
  return folder_ / (std::string(id) + ".json");
}

std::optional<AgreementDecision> AgreementDecisions::find(std::string_view id) const {
  const fs::path path = path_of(id);
  if (!stands(path)) return std::nullopt;
  try {
    auto decision =
        AgreementDecision::parse(parse_json(read_file(path, decision_bytes), decision_bytes));
    require(decision.id == id, "invalid_state", "The decision is that on another agreement");
    return decision;
  } catch (const Error& error) {
    throw Error(error.code, std::string(error.what()) + ": " + path_utf8(path),
                {"Remove the file and decide again"});
  }
}

AgreementDecision AgreementDecisions::agree(const Agreement& agreement, std::string_view version,
                                            AgeGiven age) const {
  require(version == agreement.version, "agreement_version",
          [&] {
            return "The agreement " + agreement.id + " has the version " + agreement.version +
                   "; read it, then agree to that";
          },
          {"agreements show " + agreement.id});
  require(!agreement.minimum_age || age == AgeGiven::sixteen_or_older, "age_required",
          "Only somebody of 16 years or older can agree: add --age-16-or-older if you are");
  const AgreementDecision decision{agreement.id, agreement.version,  agreement.text_sha256, true,
                                   age,          distributor_clock()};
  store(decision);
  return decision;
}

AgreementDecision AgreementDecisions::withdraw(std::string_view id) const {
  auto decision = find(id);
  require(decision && decision->agreed, "not_agreed",
          [&] { return "There is no consent to withdraw: " + std::string(id); });
  decision->agreed = false;
  decision->decided = distributor_clock();
  store(*decision);
  return *decision;
}

void AgreementDecisions::store(const AgreementDecision& decision) const {
  const fs::path path = path_of(decision.id);
  const FileLock lock(folder_ / "agreements.lock", true, LockMode::exclusive);
  torn_write::remove_leftovers(folder_, {path_utf8(path.filename())});
  atomic_write(path, decision.to_json().dump());
}

}  // namespace tavro
