#include <nlohmann/json.hpp>

#include "crashes/crash_store.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/json_fields.h"
#include "platform/files/file_locks.h"
#include "transport/https.h"

namespace tavro {
namespace {

constexpr std::size_t answer_bytes = 16384;
constexpr std::size_t token_characters = 64;
constexpr char no_answer[] = "The crash service gave no answer that can be understood";

void require_consent(std::string_view id, const CrashService& service,
                     const CrashConsent& consent) {
  require(consent.version == service.consent_version, "crash_consent",
          [&] {
            return "Sending needs the consent to version " + service.consent_version +
                   " of what becomes of reports; review it and the report first";
          },
          {"crashes show " + std::string(id)});
  require(!service.minimum_age || consent.age == AgeGiven::sixteen_or_older, "age_required",
          "Only somebody of 16 years or older can consent: add --age-16-or-older if you are");
}

/// Not for now, but for good.
bool is_refusal(int status) {
  return status >= 400 && status < 500 && status != 408 && status != 429;
}

void require_taken(int status) {
  require(!is_refusal(status), "crash_refused", [&] {
    return "The crash service refuses this report, with status " + std::to_string(status);
  });
  require(status >= 200 && status < 300, "http_status", [&] {
    return "The crash service cannot take the report now, with status " + std::to_string(status) +
           "; send it again later";
  });
}

struct Answer {
  bool accepted = false;
  /// Under which the bytes are to be sent; empty when they are there.
  std::string token;
};

Answer read_answer(const TransportResponse& response) {
  require_taken(response.status);
  const json document = parse_json(response.body, answer_bytes);
  require(has_integer(document, "schema_version", 1), "crash_answer", no_answer);
  Answer answer;
  answer.accepted = has_text(document, "state", "accepted");
  if (answer.accepted) return answer;
  const json* token = find_member(document, "token");
  const bool wanted = has_text(document, "state", "wanted") && token != nullptr &&
                      is_lower_hex_text(*token, token_characters);
  require(wanted, "crash_answer", no_answer);
  answer.token = token->get<std::string>();
  return answer;
}

}  // namespace

bool CrashStore::send(std::string_view id, const CrashService& service, const CrashConsent& consent,
                      const std::filesystem::path& ca_bundle, const Progress& progress) const {
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  CrashEntry entry = find(id);
  if (entry.state == CrashState::sent) return false;
  require(entry.state != CrashState::discarded, "crash_state",
          "The report was put aside; restore it before it is sent");
  require_consent(id, service, consent);
  const std::string text = bytes(id);
  HttpsTransport transport(service.url, ca_bundle, 0, nullptr);
  const json ticket = {{"schema_version", 1},
                       {"kind", "tavro-crash-ticket"},
                       {"report_id", id},
                       {"length", text.size()},
                       {"sha256", digest(text, "sha256")},
                       {"consent_version", consent.version},
                       {"age_16_or_older", consent.age == AgeGiven::sixteen_or_older}};
  entry.consent_version = consent.version;
  change(entry, CrashState::sending);
  const auto answer_in = [&](const TransportResponse& response) {
    if (is_refusal(response.status)) change(entry, CrashState::kept);
    return read_answer(response);
  };
  Answer answer = answer_in(transport.post_json("tickets", ticket, progress));
  if (!answer.accepted)
    answer = answer_in(transport.upload_report("reports/" + std::string(id), report_path(id),
                                               text.size(), answer.token, progress));
  require(answer.accepted, "crash_answer", no_answer);
  change(entry, CrashState::sent);
  return true;
}

}  // namespace tavro
