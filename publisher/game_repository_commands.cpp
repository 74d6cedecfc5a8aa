#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "games/channel_unlock.h"
#include "publisher/commands.h"
#include "publisher/game_catalogs.h"
#include "publisher/publishing.h"

namespace tavro {
namespace {

/// Everything of a game, or the manifests of one channel: of all platforms, or of one.
std::vector<std::string> withdrawn_paths(const Arguments& arguments, const json& targets) {
  const std::string id = arguments.value("--game");
  const std::string platform = arguments.value("--platform");
  const std::string channel = arguments.value("--channel");
  validate_identifier(id);
  const std::string folder = "games/" + id + '/' + (platform.empty() ? "" : platform + '/');
  std::vector<std::string> paths;
  for (const auto& target : targets.items()) {
    const auto manifest = game_manifest_path(target.key());
    const bool of_channel = manifest && manifest->is_channel && manifest->name == channel;
    if (target.key().starts_with(folder) && (channel.empty() || of_channel))
      paths.push_back(target.key());
  }
  require(!paths.empty(), "target_not_found",
          [&] { return "Role " + role_of(arguments) + " publishes nothing like that of " + id; });
  return paths;
}

CommandResult withdraw(const Arguments& arguments, const CommandContext&) {
  std::vector<std::string> paths;
  CommandResult result =
      publish_change(arguments, GameCatalogs::kept_true, [&](Repository& repository) {
        const std::string role = role_of(arguments);
        const auto body = repository.state().roles.find(role);
        require(body != repository.state().roles.end(), "unknown_role",
                [&] { return "The repository has no role " + role + " that lists targets"; });
        paths = withdrawn_paths(arguments, body->second.at("targets"));
        for (const std::string& path : paths) repository.remove_target(role, path);
      });
  result.document["withdrawn"] = paths;
  return result;
}

CommandResult make_catalog(const Arguments& arguments, const CommandContext&) {
  return publish_change(arguments, GameCatalogs::untouched, [&](Repository& repository) {
    const CatalogUpkeep made = make_catalogs(repository, arguments.value("--role"));
    require(!made.renewed.empty(), "target_not_found", "The repository publishes no games");
  });
}

CommandResult lock(const Arguments& arguments, const CommandContext&) {
  const std::string id = arguments.value("--game"), channel = arguments.value("--channel");
  const std::string file = arguments.value("--code-file");
  require(file.empty() == arguments.has("--open"), "usage", "Give --code-file FILE, or --open");
  const std::string code_sha256 =
      file.empty() ? std::string() : unlock_code_sha256(read_file(file, 2 * kMaxUnlockCode));
  return publish_change(arguments, GameCatalogs::untouched, [&](Repository& repository) {
    const CatalogUpkeep changed = lock_channel(repository, id, channel, code_sha256);
    require(!changed.renewed.empty(), "target_not_found",
            [&] { return "No catalogue lists channel " + channel + " of " + id; });
  });
}

}  // namespace

std::vector<PublishCommand> game_repository_commands() {
  return {
      {"repository withdraw", "Withdraw a game, or one of its channels",
       signing_options({{"--game", "ID", "The game", OptionUse::required},
                        {"--channel", "NAME", "Only this channel, and no build that it had"},
                        {"--platform", "NAME", "Of this platform; of all unless given"},
                        delegator_rule}),
       withdraw},
      {"repository lock", "Let players have a channel only with a code, or without one again",
       signing_options({{"--game", "ID", "The game", OptionUse::required},
                        {"--channel", "NAME", "The channel", OptionUse::required},
                        {"--code-file", "FILE", "Holds the code; the catalogue tells its SHA-256"},
                        {"--open", "", "Without a code again", OptionUse::flag}}),
       lock},
      {"repository catalog", "Make the game catalogues anew from all that is published",
       signing_options({{"--role", "NAME", "The role that has them from now on"}}), make_catalog},
  };
}

}  // namespace tavro
