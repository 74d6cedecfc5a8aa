#pragma once

#include <string_view>

namespace tavro::program {

/// How the program ends, so that a script can tell kinds of failures apart.
enum ExitStatus : int {
  exit_done = 0,
  /// Everything that no other status names.
  exit_failed = 1,
  /// The line is none of this program's.
  exit_usage = 2,
  /// What was asked for is not there: a game, a build, an operation, a report.
  exit_not_found = 3,
  exit_cancelled = 4,
  /// Somebody else works there, or the game runs: the same will do later.
  exit_busy = 5,
  exit_network = 6,
  /// The disk is full, or may not be written or read.
  exit_storage = 7,
  /// Something is not what was signed: on the disk, or from the repository.
  exit_not_proved = 8,
  /// A game that was started ended badly.
  exit_game_failed = 9,
};

/// The status for a failure of this code.
ExitStatus exit_status(std::string_view code);

}  // namespace tavro::program
