#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "crashes/redaction.h"
#include "crashes/system_facts.h"
#include "games/game_record.h"

namespace tavro {

/// Bounds of a report: its text, and the breadcrumbs in it.
inline constexpr std::size_t kMaxCrashReportBytes = 1048576;
inline constexpr std::size_t kMaxCrashBreadcrumbs = 64;

/// Whether a start ended as none should. A game that was told to end (interrupt, hang-up,
/// terminate) did not.
bool ended_badly(const GameStartSeen& seen);

struct CrashBreadcrumb {
  std::string category;
  std::string message;

  bool operator==(const CrashBreadcrumb&) const = default;
};

/// What is told of a start that ended badly. Nothing in it names the player or a place of the
/// player's machine.
struct CrashReport {
  std::string game_id;
  /// Its session is also the identifier of the report: there is one report a start.
  GameStartSeen seen;
  std::vector<CrashBreadcrumb> breadcrumbs;
  /// The end of what the game wrote, as UTF-8.
  std::string output;
  SystemFacts system;

  /// `session` is the last proved record of the game, or null; `output` any bytes, of which the
  /// last `kGameOutputBytes` count.
  static CrashReport make(std::string_view game_id, const GameStartSeen& seen, const json& session,
                          std::string_view output, const Redaction& redaction);

  /// Throws `unsupported_schema` for another version's, and `invalid_state`.
  static CrashReport parse(const json& document);
  json to_json() const;
  /// The document's bytes, which are what is kept, shown and sent.
  std::string text() const;

  bool operator==(const CrashReport&) const = default;
};

}  // namespace tavro
