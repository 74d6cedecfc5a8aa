#include <algorithm>
#include <iterator>
#include <set>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "publisher/commands.h"
#include "publisher/game_catalogs.h"
#include "publisher/publishing.h"
#include "tuf/client_limits.h"

namespace tavro {
namespace {

CommandResult new_repository(const Arguments& arguments, const CommandContext&) {
  Signers signers = signers_of(arguments);
  const std::string root = read_file(path_option(arguments, "--root"), client_limits.root_bytes);
  const std::filesystem::path place = repository_path(arguments);
  return told(Repository::create(place, root, signers, expiry_of(arguments)), place);
}

/// "PATH=FILE".
ChosenTarget chosen_target(const std::string& text) {
  const std::size_t equals = text.find('=');
  require(equals != std::string::npos, "usage",
          [&] { return "A target is given as PATH=FILE: " + text; });
  ChosenTarget target{text.substr(0, equals), path_from_utf8(text.substr(equals + 1)), {}};
  require(!is_game_catalog(target.path), "usage",
          "A game catalogue follows from the games; repository catalog makes it anew");
  return target;
}

/// "PATH=FILE", or releases.
std::vector<ChosenTarget> chosen_targets(const Arguments& arguments) {
  std::vector<ChosenTarget> chosen;
  for (const std::string& text : arguments.values("--target"))
    chosen.push_back(chosen_target(text));
  for (const std::string& folder : arguments.values("--release"))
    std::ranges::move(release_targets(arguments, path_from_utf8(folder)),
                      std::back_inserter(chosen));
  require(!chosen.empty(), "usage", "Choose what to add with --target PATH=FILE or --release DIR");
  std::set<std::string> paths;
  for (const ChosenTarget& target : chosen)
    require(paths.insert(target.path).second, "usage",
            [&] { return "Target was given twice: " + target.path; });
  return chosen;
}

CommandResult add_targets(const Arguments& arguments, const CommandContext& context) {
  return publish_targets(arguments, context, chosen_targets(arguments));
}

CommandResult remove_targets(const Arguments& arguments, const CommandContext&) {
  const std::vector<std::string>& paths = arguments.values("--target");
  require(!paths.empty(), "usage", "Choose what to remove with --target PATH");
  return publish_change(arguments, GameCatalogs::kept_true, [&](Repository& repository) {
    for (const std::string& path : paths) repository.remove_target(role_of(arguments), path);
  });
}

RoleKeys keys_of(const Arguments& arguments, const std::string& option,
                 const std::string& threshold, RoleKeys keys) {
  if (arguments.has(option)) keys.records.clear();
  for (const std::string& file : arguments.values(option))
    keys.records.push_back(load_key_record(path_from_utf8(file)));
  keys.threshold = arguments.number(threshold, 1, most_threshold, keys.threshold);
  return keys;
}

/// All that is published of a game. A `*` does not cross a `/`, and clients look one folder deeper.
std::vector<std::string> game_patterns(const std::string& game) {
  validate_identifier(game);
  return {"games/" + game + "/*", "games/" + game + "/*/*"};
}

CommandResult delegate(const Arguments& arguments, const CommandContext&) {
  Delegation delegation{.name = arguments.value("--name"),
                        .keys = keys_of(arguments, "--role-key", "--threshold", {}),
                        .paths = arguments.values("--path"),
                        .hash_prefixes = arguments.values("--hash-prefix"),
                        .terminating = arguments.has("--terminating")};
  require(!delegation.keys.records.empty(), "usage",
          "Choose who signs for the role with --role-key FILE");
  for (const std::string& game : arguments.values("--game"))
    std::ranges::move(game_patterns(game), std::back_inserter(delegation.paths));
  // What clients find may follow from the order of roles, and what they find makes a catalogue.
  return publish_change(arguments, GameCatalogs::kept_true, [&](Repository& repository) {
    repository.delegate(role_of(arguments), delegation);
  });
}

CommandResult undelegate(const Arguments& arguments, const CommandContext&) {
  return publish_change(arguments, GameCatalogs::kept_true, [&](Repository& repository) {
    repository.undelegate(arguments.value("--name"));
  });
}

CommandResult rotate(const Arguments& arguments, const CommandContext&) {
  const std::string expires = root_expiry(arguments);
  return publish_change(arguments, GameCatalogs::untouched, [&](Repository& repository) {
    RootRequest request = root_request(repository.state().root);
    request.expires = expires;
    const auto change = [&](const std::string& role, RoleKeys& keys) {
      keys = keys_of(arguments, "--" + role + "-key", "--" + role + "-threshold", keys);
    };
    change("root", request.root);
    change("targets", request.targets);
    change("snapshot", request.snapshot);
    change("timestamp", request.timestamp);
    repository.rotate(request);
  });
}

CommandResult renew(const Arguments& arguments, const CommandContext&) {
  const std::vector<std::string>& roles = arguments.values("--role");
  require(!roles.empty(), "usage", "Choose what to sign again with --role NAME");
  return publish_change(arguments, GameCatalogs::untouched, [&](Repository& repository) {
    for (const std::string& role : roles) repository.renew(role);
  });
}

CommandResult refresh_timestamp(const Arguments& arguments, const CommandContext&) {
  return publish_change(arguments, GameCatalogs::untouched,
                        [](Repository& repository) { repository.renew("timestamp"); });
}

CommandResult prune(const Arguments& arguments, const CommandContext&) {
  const std::filesystem::path path = repository_path(arguments);
  const std::size_t removed = Repository(path).prune();
  return {
      "Removed " + std::to_string(removed) + " files that " + path_utf8(path) + " no longer names.",
      {{"path", path_utf8(path)}, {"removed", removed}}};
}

std::vector<OptionRule> rotation_options() {
  return signing_options(
      {{"--expires", "TIME", "When the root expires, in UTC: 2030-01-01T00:00:00Z"},
       {"--days", "N", "The same, counted from now"},
       {"--root-key", "FILE", "A key of the root role, in place of those before",
        OptionUse::repeated},
       {"--targets-key", "FILE", "The same for the targets role", OptionUse::repeated},
       {"--snapshot-key", "FILE", "The same for the snapshot role", OptionUse::repeated},
       {"--timestamp-key", "FILE", "The same for the timestamp role", OptionUse::repeated},
       {"--root-threshold", "N", "Signatures that the role needs, if they change"},
       {"--targets-threshold", "N", "The same for the targets role"},
       {"--snapshot-threshold", "N", "The same for the snapshot role"},
       {"--timestamp-threshold", "N", "The same for the timestamp role"}});
}

std::vector<OptionRule> delegation_options() {
  return signing_options(
      {{"--name", "NAME", "The role that is delegated to", OptionUse::required},
       {"--role", "NAME", "The role that delegates; targets unless given"},
       {"--role-key", "FILE", "A key of the role, private or public", OptionUse::repeated},
       {"--threshold", "N", "Signatures that the role needs; 1 unless given"},
       {"--game", "ID", "All of this game, for a studio that signs it", OptionUse::repeated},
       {"--path", "PATTERN", "Target paths, with *, ? and [...]", OptionUse::repeated},
       {"--hash-prefix", "HEX", "Or the beginning of their SHA-256", OptionUse::repeated},
       {"--terminating", "", "What it does not list, no later role may list", OptionUse::flag}});
}

}  // namespace

std::vector<PublishCommand> repository_commands() {
  return {
      {"repository new", "Make a repository from its first root",
       signing_options({{"--root", "FILE", "Signed root metadata", OptionUse::required}}),
       new_repository},
      {"repository add", "Publish targets",
       signing_options(
           {{"--target", "PATH=FILE", "A target path and its file", OptionUse::repeated},
            {"--release", "DIR", "A launcher, bootstrap or game release: all that it has",
             OptionUse::repeated},
            delegator_rule,
            channel_rule,
            hold_key_rule}),
       add_targets},
      {"repository remove", "Withdraw targets",
       signing_options(
           {{"--target", "PATH", "The target path", OptionUse::repeated}, delegator_rule}),
       remove_targets},
      {"repository delegate", "Delegate paths to a role, or change such a delegation",
       delegation_options(), delegate},
      {"repository undelegate", "Take a delegation back",
       signing_options({{"--name", "NAME", "The delegated role", OptionUse::required}}),
       undelegate},
      {"repository rotate", "Publish the next root, with other keys or a later expiry",
       rotation_options(), rotate},
      {"repository renew", "Sign roles again before they expire",
       signing_options(
           {{"--role", "NAME", "targets, snapshot or a delegated role", OptionUse::repeated}}),
       renew},
      {"repository timestamp",
       "Refresh the timestamp alone",
       {repository_rule, key_rule, timestamp_days_rule},
       refresh_timestamp},
      {"repository prune",
       "Remove metadata and targets that clients with present metadata never ask for",
       {repository_rule},
       prune},
  };
}

}  // namespace tavro
