#include "documents/sdk_session.h"

#include <algorithm>
#include <array>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

constexpr std::size_t kMaxBreadcrumbs = 64;
constexpr std::size_t kMaxAttachments = 4;
constexpr std::array<std::string_view, 3> kStates = {"starting", "ready", "clean_exit"};
constexpr std::array<std::string_view, 3> kAttachments = {"log", "screenshot", "video"};

template <typename Names>
bool is_one_of(const json& value, const Names& names) {
  return std::any_of(names.begin(), names.end(),
                     [&](std::string_view name) { return value == name; });
}

bool is_bounded_text(const json& value, std::size_t max_bytes) {
  return value.is_string() && value.get_ref<const std::string&>().size() <= max_bytes;
}

bool is_bound(const json& record, const SessionBinding& binding) {
  return is_integer(record.at("schema_version"), 1) &&
         record.at("session_id") == binding.session_id && record.at("nonce") == binding.nonce &&
         record.at("game_id") == binding.game_id && record.at("build_id") == binding.build_id &&
         is_integer(record.at("pid"), binding.pid);
}

void require_current(const json& sequence, unsigned long long minimum) {
  require(sequence.is_number_unsigned() &&
              sequence.get<json::number_unsigned_t>() >= std::max(minimum, 1ULL),
          "session_replay", "Readiness sequence went backwards");
}

void check_breadcrumbs(const json& breadcrumbs) {
  require(breadcrumbs.is_array() && breadcrumbs.size() <= kMaxBreadcrumbs, "invalid_session",
          "SDK record has too many breadcrumbs");
  for (const json& entry : breadcrumbs)
    require(is_bounded_text(entry.at("category"), 64) && is_bounded_text(entry.at("message"), 512),
            "invalid_session", "SDK breadcrumb exceeds record bounds");
}

void check_attachment(const json& entry) {
  const auto& kind = entry.at("kind").get_ref<const std::string&>();
  const auto& path = entry.at("path").get_ref<const std::string&>();
  require(entry.size() == 2 && is_one_of(kind, kAttachments), "invalid_session",
          "SDK attachment is invalid");
  validate_relative_path(path, true);
}

void check_attachments(const json& record) {
  const json* attachments = find_member(record, "attachments");
  if (attachments == nullptr) return;
  require(attachments->is_array() && attachments->size() <= kMaxAttachments, "invalid_session",
          "SDK record has too many attachments");
  for (const json& entry : *attachments) check_attachment(entry);
}

void check_native_capture(const json& record) {
  if (const json* id = find_member(record, "native_capture_id"))
    require(is_lower_hex(id->get_ref<const std::string&>(), 32), "invalid_session",
            "Native capture identity is invalid");
  if (const json* problem = find_member(record, "native_capture_problem"))
    require(is_bounded_text(*problem, 128), "invalid_session",
            "Native capture problem exceeds its bound");
}

void check_record(const json& record, const SessionBinding& binding, unsigned long long minimum) {
  require(is_bound(record, binding), "invalid_session",
          "Readiness record does not match the expected game/process/session");
  require_current(record.at("sequence"), minimum);
  const json& ready_seen = record.at("ready_seen");
  require(ready_seen.is_boolean() && is_one_of(record.at("state"), kStates), "invalid_session",
          "Unknown SDK session state");
  const json& state = record.at("state");
  check_breadcrumbs(record.at("breadcrumbs"));
  require(state != "ready" || ready_seen == true, "invalid_session",
          "Ready state lacks readiness evidence");
  check_attachments(record);
  check_native_capture(record);
  require(state != "clean_exit" || record.at("exit_code").is_number_integer(), "invalid_session",
          "Clean exit lacks an exit status");
}

}  // namespace

json validate_sdk_record(const json& record, const SessionBinding& binding,
                         unsigned long long minimum_sequence) {
  read_fields("invalid_session", "SDK record fields are missing or malformed",
              [&] { check_record(record, binding, minimum_sequence); });
  return record;
}

}  // namespace tavro
