#include "documents/service_status.h"

#include <algorithm>
#include <array>

#include "documents/service_fields.h"
#include "domain/error.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

using service_fields::kInvalid;

constexpr char kind[] = "tavro-service-status";
constexpr std::size_t max_text_bytes = 2000;
constexpr std::array<std::string_view, 4> states = {"operational", "degraded", "maintenance",
                                                    "outage"};

ServiceState state_of(const std::string& name) {
  const auto* found = std::find(states.begin(), states.end(), name);
  require(found != states.end(), kInvalid, "The service status names an unknown state");
  return static_cast<ServiceState>(found - states.begin());
}

ServiceStatus read_status(const json& document) {
  ServiceStatus status;
  status.state = state_of(text_member(document, "state"));
  status.text = service_fields::text(document, "text", 0, max_text_bytes, LineBreaks::allowed);
  status.issued = service_fields::moment(document, "issued");
  status.valid_until = service_fields::moment(document, "valid_until");
  require(status.issued < status.valid_until, kInvalid, "The service status ends before it begins");
  require(status.valid_until - status.issued <= ServiceStatus::kLongestSpan, kInvalid,
          "The service status counts for more than 31 days");
  return status;
}

}  // namespace

std::string_view service_state_name(ServiceState state) {
  return states.at(static_cast<std::size_t>(state));
}

ServiceStatus ServiceStatus::parse(const json& document) {
  service_fields::require_kind(document, kind);
  return read_fields(kInvalid, "The service status has missing or malformed fields",
                     [&] { return read_status(document); });
}

json ServiceStatus::to_json() const {
  return {{"schema_version", 1}, {"kind", kind},     {"state", service_state_name(state)},
          {"text", text},        {"issued", issued}, {"valid_until", valid_until}};
}

}  // namespace tavro
