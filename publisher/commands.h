#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "domain/progress.h"
#include "publisher/arguments.h"
#include "publisher/release.h"

namespace tavro {

/// What a command did: one sentence for a person, one document for --json. The command line adds
/// `schema_version` to the document.
struct CommandResult {
  std::string sentence;
  json document;
};

/// What a command may use while it works.
struct CommandContext {
  std::function<bool()> cancelled;
  bool quiet = false;

  /// Tells a phase on standard error, unless quiet, and gives the progress that polls `cancelled`.
  Progress phase(std::string_view line) const;
};

/// One command of tavro-publish, for instance "keys new".
struct PublishCommand {
  std::string_view words;
  std::string_view summary;
  /// Without --json and --help, which every command has.
  std::vector<OptionRule> options;
  CommandResult (*run)(const Arguments& arguments, const CommandContext& context);
};

/// The commands by subject, each list in the order of the usage text.
std::vector<PublishCommand> key_commands();
std::vector<PublishCommand> root_commands();
std::vector<PublishCommand> release_commands();
std::vector<PublishCommand> game_commands();
std::vector<PublishCommand> package_commands();
std::vector<PublishCommand> theme_commands();
std::vector<PublishCommand> repository_commands();
std::vector<PublishCommand> game_repository_commands();
std::vector<PublishCommand> service_commands();
std::vector<PublishCommand> check_commands();

/// The expiry of a root: `--expires TIME`, or `--days N` from now. Throws `usage` unless exactly
/// one of them is given.
std::string root_expiry(const Arguments& arguments);

/// The options of every command that packs a build, with the command's own among them, and the
/// request that they make, without a folder. Throws `usage`.
std::vector<OptionRule> packing_options(std::vector<OptionRule> own);
ReleaseRequest packing_request(const Arguments& arguments, ReleaseKind kind);

/// The options of every command that publishes, and the command's own.
std::vector<OptionRule> signing_options(std::vector<OptionRule> own);

/// Publishes a release folder as "repository add" does with `--release`; reads `signing_options`.
CommandResult publish_release(const Arguments& arguments, const CommandContext& context,
                              const std::filesystem::path& folder);

/// The largest threshold on a command line, and the furthest expiry.
inline constexpr unsigned long long most_threshold = 1024;
inline constexpr unsigned long long most_days = 36500;

/// A path from the command line, absolute; empty when the option was not given. Throws
/// `unsafe_path` for a NUL byte.
std::filesystem::path path_option(const Arguments& arguments, std::string_view option);

}  // namespace tavro
