#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "publisher/commands.h"
#include "publisher/repository.h"
#include "publisher/signing.h"

namespace tavro {

// What the commands that publish have in common; all read `signing_options`.

inline const OptionRule repository_rule{"--repository", "DIR", "The repository",
                                        OptionUse::required};
inline const OptionRule key_rule{
    "--key", "FILE", "A private key; each document is signed by those that its role lists",
    OptionUse::repeated};
inline const OptionRule delegator_rule{"--role", "NAME",
                                       "The role that lists it; targets unless given"};
inline const OptionRule channel_rule{"--channel", "NAME",
                                     "Whose newest build a game becomes; stable unless given"};
inline const OptionRule hold_key_rule{
    "--hold-key", "", "Leave the key of an encrypted game for later", OptionUse::flag};
inline const OptionRule timestamp_days_rule{"--timestamp-days", "N",
                                            "Days until the timestamp expires; 7"};

std::filesystem::path repository_path(const Arguments& arguments);
/// The keys of `--key`. Throws `usage` without one, and `key_file`.
Signers signers_of(const Arguments& arguments);
RepositoryExpiry expiry_of(const Arguments& arguments);
/// `--role`, or "targets".
std::string role_of(const Arguments& arguments);

/// What the repository says now.
CommandResult told(const RepositoryState& state, const std::filesystem::path& path);

/// What is to be done about the game catalogues after a change.
enum class GameCatalogs { untouched, kept_true };

/// Opens the repository, lets `change` collect, and publishes it in one step.
CommandResult publish_change(const Arguments& arguments, GameCatalogs catalogs,
                             const std::function<void(Repository&)>& change);

/// A file that becomes a target.
struct ChosenTarget {
  enum class Kind {
    any,
    /// The newest build of a game's channel, for which clients look under this role alone.
    channel,
    /// What clients of a game still want when there are newer builds: it never changes.
    build,
    /// The same, and its content must lie under no other path.
    key
  };
  std::string path;
  std::filesystem::path file;
  std::string sha256;  ///< empty for any content
  Kind kind = Kind::any;
};

/// What a release publishes, under the target paths that clients look for. Of a game it becomes the
/// newest build of `--channel`, and with `--hold-key` its key is left out.
std::vector<ChosenTarget> release_targets(const Arguments& arguments,
                                          const std::filesystem::path& folder);

/// Publishes the targets in the role of `--role`. Throws `content_mismatch` for a release that is
/// not what it was when it was made, `target_conflict` for a build of a game that is published with
/// other content already or where clients would find another role's, `key_reused`, and as
/// `publish_change`.
CommandResult publish_targets(const Arguments& arguments, const CommandContext& context,
                              const std::vector<ChosenTarget>& chosen);

}  // namespace tavro
