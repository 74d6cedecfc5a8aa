// Session records as a hostile game would write them: nothing but an `Error` may come of one, and
// what is accepted is the record itself, within its bounds.

#include "documents/sdk_session.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "domain/error.h"

namespace {

using namespace tavro;

void must(bool condition) {
  if (!condition) std::abort();
}

std::string claim(const json& record, std::string_view key) {
  const json* member = find_member(record, key);
  return member != nullptr && member->is_string() ? member->get<std::string>() : std::string();
}

// The binding that the record claims, since no mutation would guess one.
SessionBinding claimed_binding(const json& record) {
  const json* pid = find_member(record, "pid");
  return {claim(record, "session_id"), claim(record, "nonce"), claim(record, "game_id"),
          claim(record, "build_id"),
          pid != nullptr && pid->is_number_unsigned() ? pid->get<std::uint64_t>() : 1};
}

void check(std::string_view text) {
  const json record = parse_json(text, kMaxSdkRecordText);
  const SessionBinding binding = claimed_binding(record);
  must(validate_sdk_record(record, binding, 0) == record);
  const auto sequence = record.at("sequence").get<unsigned long long>();
  must(sequence > 0 && record.at("breadcrumbs").size() <= 64);
  must(validate_sdk_record(record, binding, sequence) == record);
  if (sequence == UINT64_MAX) return;
  try {
    validate_sdk_record(record, binding, sequence + 1);
    must(false);
  } catch (const Error& refusal) {
    must(refusal.code == "session_replay");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  try {
    check({reinterpret_cast<const char*>(bytes), size});
  } catch (const Error&) {
  }
  return 0;
}
