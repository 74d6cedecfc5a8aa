#include "documents/notices.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <tuple>

#include "documents/service_fields.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

using service_fields::kInvalid;

constexpr char kind[] = "tavro-notices";
constexpr std::size_t max_title_bytes = 200;
constexpr std::size_t max_text_bytes = 4096;
constexpr std::array<std::string_view, 3> severities = {"information", "warning", "critical"};

NoticeSeverity severity_of(const std::string& name) {
  const auto* found = std::find(severities.begin(), severities.end(), name);
  require(found != severities.end(), kInvalid, "A notice has an unknown severity");
  return static_cast<NoticeSeverity>(found - severities.begin());
}

Notice read_notice(const json& value) {
  Notice notice;
  notice.id = text_member(value, "id");
  validate_identifier(notice.id);
  notice.severity = severity_of(text_member(value, "severity"));
  notice.title = service_fields::text(value, "title", 1, max_title_bytes, LineBreaks::refused);
  notice.text = service_fields::text(value, "text", 1, max_text_bytes, LineBreaks::allowed);
  notice.from = service_fields::moment(value, "from");
  notice.until = service_fields::moment(value, "until");
  require(notice.from < notice.until, kInvalid, "A notice ends before it begins");
  return notice;
}

Notices read_notices(const json& document) {
  Notices all;
  std::set<std::string> ids;
  for (const json& value : service_fields::list(document, "notices", kMaxNotices)) {
    all.notices.push_back(read_notice(value));
    require(ids.insert(all.notices.back().id).second, kInvalid,
            "Two notices have the same identifier");
  }
  return all;
}

}  // namespace

std::string_view severity_name(NoticeSeverity severity) {
  return severities.at(static_cast<std::size_t>(severity));
}

std::vector<Notice> Notices::in_force(std::uint64_t now) const {
  std::vector<Notice> shown;
  std::copy_if(notices.begin(), notices.end(), std::back_inserter(shown),
               [now](const Notice& notice) { return notice.holds(now); });
  std::sort(shown.begin(), shown.end(), [](const Notice& left, const Notice& right) {
    return std::tie(right.severity, right.from, left.id) <
           std::tie(left.severity, left.from, right.id);
  });
  return shown;
}

Notices Notices::parse(const json& document) {
  service_fields::require_kind(document, kind);
  return read_fields(kInvalid, "The notices have missing or malformed fields",
                     [&] { return read_notices(document); });
}

json Notices::to_json() const {
  json list = json::array();
  for (const Notice& notice : notices)
    list.push_back({{"id", notice.id},
                    {"severity", severity_name(notice.severity)},
                    {"title", notice.title},
                    {"text", notice.text},
                    {"from", notice.from},
                    {"until", notice.until}});
  return {{"schema_version", 1}, {"kind", kind}, {"notices", std::move(list)}};
}

}  // namespace tavro
