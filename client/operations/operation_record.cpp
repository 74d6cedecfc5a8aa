#include "operations/operation_record.h"

#include <algorithm>
#include <array>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

constexpr std::string_view damaged = "The journal entry of an operation is damaged";
constexpr std::size_t id_characters = 32;

constexpr std::array<std::pair<OperationState, std::string_view>, 5> states{{
    {OperationState::running, "running"},
    {OperationState::succeeded, "succeeded"},
    {OperationState::failed, "failed"},
    {OperationState::cancelled, "cancelled"},
    {OperationState::interrupted, "interrupted"},
}};

OperationState state_of(const std::string& name) {
  const auto* const row = std::find_if(states.begin(), states.end(),
                                       [&](const auto& each) { return each.second == name; });
  require(row != states.end(), "invalid_state", damaged);
  return row->first;
}

std::vector<std::string> request_of(const json& value) {
  require(value.is_array() && !value.empty() && value.size() <= kOperationWords, "invalid_state",
          damaged);
  auto words = value.get<std::vector<std::string>>();
  for (const std::string& word : words)
    require(word.size() <= kOperationWordBytes && word.find('\0') == std::string::npos,
            "invalid_state", damaged);
  return words;
}

/// JSON has negative numbers, which are no counts.
std::uint64_t count_of(const json& document, const char* key) {
  require(document.at(key).is_number_unsigned(), "invalid_state", damaged);
  return document.at(key).get<std::uint64_t>();
}

}  // namespace

std::string_view operation_state_name(OperationState state) {
  return std::find_if(states.begin(), states.end(),
                      [&](const auto& each) { return each.first == state; })
      ->second;
}

void require_operation_id(std::string_view id) {
  require(is_lower_hex(id, id_characters), "not_found",
          "An operation is named by the 32 characters that operations list shows");
}

OperationRecord OperationRecord::parse(const json& document, std::string_view id) {
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "An operation of another version of this client was preserved");
  return read_fields("invalid_state", damaged, [&] {
    OperationRecord record;
    record.id = text_member(document, "id");
    require(record.id == id, "invalid_state", damaged);
    record.request = request_of(document.at("request"));
    record.retry_of = text_member(document, "retry_of");
    if (!record.retry_of.empty())
      require(is_lower_hex(record.retry_of, id_characters), "invalid_state", damaged);
    record.state = state_of(text_member(document, "state"));
    record.pid = count_of(document, "pid");
    record.started = count_of(document, "started");
    record.ended = count_of(document, "ended");
    record.phase = text_member(document, "phase");
    record.done = count_of(document, "done");
    record.total = count_of(document, "total");
    const json& problem = document.at("problem");
    if (!problem.is_null()) {
      record.problem_code = text_member(problem, "code");
      record.problem_message = text_member(problem, "message");
    }
    record.result = document.at("result");
    require(record.result.is_object() || record.result.is_null(), "invalid_state", damaged);
    return record;
  });
}

json OperationRecord::to_json() const {
  json document = {{"schema_version", 1},
                   {"id", id},
                   {"request", request},
                   {"retry_of", retry_of},
                   {"state", operation_state_name(state)},
                   {"pid", pid},
                   {"started", started},
                   {"ended", ended},
                   {"phase", phase},
                   {"done", done},
                   {"total", total},
                   {"problem", nullptr},
                   {"result", result}};
  if (!problem_code.empty())
    document["problem"] = {{"code", problem_code}, {"message", problem_message}};
  return document;
}

}  // namespace tavro
