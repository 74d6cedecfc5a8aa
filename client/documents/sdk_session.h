#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "domain/json.h"

namespace tavro {

/// A bound for the text of a record, in bytes: every record of known members alone fits, however
/// its texts are escaped.
inline constexpr std::size_t kMaxSdkRecordText = 524288;

/// What the launcher knows of the session that it set up and of the process that it started.
struct SessionBinding {
  std::string session_id;
  std::string nonce;
  std::string game_id;
  std::string build_id;
  std::uint64_t pid = 0;
};

/// Proves that a record which a game wrote belongs to this session, is not older than the caller's
/// last one (an equal `sequence` passes) and keeps to its bounds; returns a copy, unknown members
/// included. The record comes from a process that nobody vouches for, and may be any value. No file
/// is read. Throws `invalid_session`, `session_replay`, or `unsafe_path` for an attachment's path.
json validate_sdk_record(const json& record, const SessionBinding& binding,
                         unsigned long long minimum_sequence);

}  // namespace tavro
