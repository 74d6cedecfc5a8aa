#include "crashes/crash_report.h"

#include <algorithm>
#include <array>
#include <csignal>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"
#include "games/game_session.h"

namespace tavro {
namespace {

constexpr char kind[] = "tavro-crash-report";
constexpr char malformed[] = "The crash report has missing or malformed fields";
constexpr int signal_statuses = 128;
constexpr std::size_t max_category_bytes = 64;
constexpr std::size_t max_message_bytes = 512;

/// What is no UTF-8 in it is replaced.
std::string repaired(const std::string& bytes) {
  const std::string text = json(bytes).dump(-1, ' ', false, json::error_handler_t::replace);
  return parse_json(text, text.size()).get<std::string>();
}

/// At most that many bytes, and no character cut.
std::string shortened(const std::string& text, std::size_t most) {
  std::size_t size = std::min(text.size(), most);
  while (size > 0 && size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80)
    --size;
  return text.substr(0, size);
}

/// A record was proved while its game ran; members that it may lack are taken for nothing.
std::vector<CrashBreadcrumb> breadcrumbs_of(const json& session, const Redaction& redaction) {
  const json* list = find_member(session, "breadcrumbs");
  if (list == nullptr || !list->is_array()) return {};
  std::vector<CrashBreadcrumb> crumbs;
  for (const json& entry : *list) {
    const json* category = find_member(entry, "category");
    const json* message = find_member(entry, "message");
    if (category == nullptr || message == nullptr || !category->is_string() ||
        !message->is_string() || crumbs.size() == kMaxCrashBreadcrumbs)
      continue;
    const auto told = [&](const json& text, std::size_t most) {
      return shortened(redaction.apply(text.get<std::string>()), most);
    };
    crumbs.push_back({told(*category, max_category_bytes), told(*message, max_message_bytes)});
  }
  return crumbs;
}

CrashBreadcrumb read_breadcrumb(const json& value) {
  CrashBreadcrumb crumb{text_member(value, "category"), text_member(value, "message")};
  require(crumb.category.size() <= max_category_bytes && crumb.message.size() <= max_message_bytes,
          "invalid_state", malformed);
  return crumb;
}

CrashReport read_report(const json& document) {
  CrashReport report;
  report.game_id = text_member(document, "game_id");
  validate_identifier(report.game_id);
  report.seen = GameStartSeen::parse(document.at("start"));
  const json& crumbs = document.at("breadcrumbs");
  require(crumbs.is_array() && crumbs.size() <= kMaxCrashBreadcrumbs, "invalid_state", malformed);
  for (const json& crumb : crumbs) report.breadcrumbs.push_back(read_breadcrumb(crumb));
  report.output = text_member(document, "output");
  report.system = SystemFacts::parse(document.at("system"));
  return report;
}

}  // namespace

bool ended_badly(const GameStartSeen& seen) {
  constexpr std::array asked_to_end = {SIGHUP, SIGINT, SIGTERM};
  if (seen.outcome == GameOutcome::clean) return false;
  return std::find(asked_to_end.begin(), asked_to_end.end(), seen.status - signal_statuses) ==
         asked_to_end.end();
}

CrashReport CrashReport::make(std::string_view game_id, const GameStartSeen& seen,
                              const json& session, std::string_view output,
                              const Redaction& redaction) {
  if (output.size() > kGameOutputBytes) output.remove_prefix(output.size() - kGameOutputBytes);
  CrashReport report;
  report.game_id = game_id;
  report.seen = seen;
  report.breadcrumbs = breadcrumbs_of(session, redaction);
  report.output = repaired(redaction.apply(output, output.size() == kGameOutputBytes));
  report.system = SystemFacts::of_this_machine(redaction);
  return report;
}

CrashReport CrashReport::parse(const json& document) {
  require(has_text(document, "kind", kind), "invalid_state", "This is no crash report");
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "The crash report was made by a newer launcher, and stays");
  return read_fields("invalid_state", malformed, [&] { return read_report(document); });
}

json CrashReport::to_json() const {
  json crumbs = json::array();
  for (const CrashBreadcrumb& crumb : breadcrumbs)
    crumbs.push_back({{"category", crumb.category}, {"message", crumb.message}});
  return {{"schema_version", 1},       {"kind", kind},     {"game_id", game_id},
          {"start", seen.to_json()},   {"output", output}, {"breadcrumbs", std::move(crumbs)},
          {"system", system.to_json()}};
}

std::string CrashReport::text() const {
  std::string text = to_json().dump(-1, ' ', false, json::error_handler_t::replace);
  require(text.size() <= kMaxCrashReportBytes, "size_limit", "The crash report is too large");
  return text;
}

}  // namespace tavro
