#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Bytes of a journal entry, and bounds of what it keeps of a request.
inline constexpr std::size_t kOperationBytes = 65536;
inline constexpr std::size_t kOperationWords = 32;
inline constexpr std::size_t kOperationWordBytes = 1024;

enum class OperationState {
  running,
  succeeded,
  failed,
  cancelled,
  /// Its process ended before it said how it went.
  interrupted,
};

std::string_view operation_state_name(OperationState state);

/// What the journal knows of one operation.
struct OperationRecord {
  std::string id;
  /// What was asked for, word by word, so that it can be asked for again.
  std::vector<std::string> request;
  /// Of the operation that this one tries again; empty otherwise.
  std::string retry_of;
  OperationState state = OperationState::running;
  unsigned long long pid = 0;
  /// Milliseconds since 1970; `ended` is 0 while nobody saw its end.
  std::uint64_t started = 0;
  std::uint64_t ended = 0;
  std::string phase;
  std::uint64_t done = 0;
  std::uint64_t total = 0;
  /// Of a failure; else empty.
  std::string problem_code;
  std::string problem_message;
  /// What it came to, an object; null without one.
  json result;

  /// Throws `unsupported_schema` for another version's, and `invalid_state` for a damaged one or
  /// that of another operation.
  static OperationRecord parse(const json& document, std::string_view id);
  json to_json() const;
};

/// Throws `not_found` unless it has the form of an operation's identifier.
void require_operation_id(std::string_view id);

}  // namespace tavro
