#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/json.h"
#include "domain/progress.h"
#include "publisher/check_games.h"
#include "transport/transport.h"

namespace tavro {

struct CheckRequest {
  std::string url;                  ///< origin of the repository
  std::filesystem::path root;       ///< the root that is trusted at first
  std::filesystem::path ca_bundle;  ///< empty means the system's certificates
  std::vector<std::string> targets;
  bool download = false;  ///< bring the targets in, too
  /// Where downloads stay, below `targets`, and go on when an earlier run was stopped. Empty: they
  /// are removed once they are verified.
  std::filesystem::path folder{};
  /// Prove all games, too; a folder is then also where the room for the largest one is found.
  bool games = false;
  GameTold told{};
};

/// Looks at a repository as a client does that trusts nothing but this root, with the client's own
/// code, and keeps nothing but what `folder` asks for. The result has `url`, `trusted_until`,
/// `roles` (`version` and `expires` of each role that was proved) and `targets` (`path`, `length`
/// and `hashes` of each; of a download into `folder` also `file`, and `at_hand`, the bytes that
/// were there before), and for `games` that of `check_games`. Every failure is the client's; `busy`
/// while another check has the folder.
json check_repository(const CheckRequest& request, const Progress& progress);

/// The same over other transports, to the metadata and to the targets; `url` and `ca_bundle` are
/// not looked at.
json check_repository(const CheckRequest& request, Transport& metadata, Transport& targets,
                      const Progress& progress);

}  // namespace tavro
