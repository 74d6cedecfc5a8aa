#include "documents/crash_service.h"

#include "documents/service_fields.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

constexpr char kind[] = "tavro-crash-service";
constexpr std::size_t max_url_bytes = 2048;
constexpr std::size_t max_consent_bytes = 16384;

CrashService read_service(const json& document) {
  CrashService service;
  service.url = service_fields::text(document, "url", 1, max_url_bytes, LineBreaks::refused);
  require(service.url.starts_with("https://"), service_fields::kInvalid,
          "Reports of crashes are only sent over HTTPS");
  service.consent_version = text_member(document, "consent_version");
  validate_identifier(service.consent_version);
  service.consent_text =
      service_fields::text(document, "consent_text", 1, max_consent_bytes, LineBreaks::allowed);
  service.minimum_age = service_fields::truth(document, "minimum_age");
  return service;
}

}  // namespace

CrashService CrashService::parse(const json& document) {
  service_fields::require_kind(document, kind);
  return read_fields(service_fields::kInvalid, "The crash service has missing or malformed fields",
                     [&] { return read_service(document); });
}

json CrashService::to_json() const {
  return {{"schema_version", 1},
          {"kind", kind},
          {"url", url},
          {"consent_version", consent_version},
          {"consent_text", consent_text},
          {"minimum_age", minimum_age}};
}

}  // namespace tavro
