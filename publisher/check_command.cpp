#include <set>

#include "domain/error.h"
#include "publisher/check.h"
#include "publisher/commands.h"

namespace tavro {
namespace {

/// Of one target, as a part of the sentence.
std::string told(const json& target, bool downloaded) {
  std::string text =
      target.at("path").get<std::string>() + " has " + target.at("length").dump() + " bytes";
  if (downloaded) text += " and verifies";
  if (!target.contains("file")) return text;
  text += " as " + target.at("file").get<std::string>();
  const json& at_hand = target.at("at_hand");
  return at_hand == 0 ? text : text + ", with " + at_hand.dump() + " bytes at hand before";
}

/// Of all builds, as a part of the sentence. Throws `games_failed` if one of them is not as it must
/// be.
std::string games_told(const json& games) {
  std::size_t failed = 0;
  std::string first;
  std::set<std::string> ids;
  for (const json& build : games) {
    ids.insert(build.value("game_id", ""));
    if (!build.contains("problem")) continue;
    if (failed++ == 0)
      first = build.value("game_id", "the catalogue") + " (" +
              build.at("problem").at("code").get<std::string>() + ")";
  }
  require(failed == 0, "games_failed", [&] {
    return "Of " + std::to_string(games.size()) + " builds " + std::to_string(failed) +
           " cannot be installed, the first of them " + first;
  });
  return std::to_string(games.size()) + " builds of " + std::to_string(ids.size()) +
         " games can be installed";
}

CommandResult check(const Arguments& arguments, const CommandContext& context) {
  const CheckRequest request{.url = arguments.value("URL"),
                             .root = path_option(arguments, "--root"),
                             .ca_bundle = path_option(arguments, "--ca-bundle"),
                             .targets = arguments.values("--target"),
                             .download = arguments.has("--download"),
                             .folder = path_option(arguments, "--folder"),
                             .games = arguments.has("--games"),
                             .told = [&](const std::string& line) { context.phase(line); }};
  require(request.download || request.games || request.folder.empty(), "usage",
          "--folder needs --download or --games");
  json document = check_repository(request, context.phase("Checking…"));
  std::string sentence = "A client trusts " + request.url + " until " +
                         document.at("trusted_until").get<std::string>() + ":";
  std::string separator = " ";
  for (const auto& [role, validity] : document.at("roles").items()) {
    sentence += separator + role + ' ' + validity.at("version").dump();
    separator = ", ";
  }
  for (const json& target : document.at("targets"))
    sentence += "; " + told(target, request.download);
  if (request.games) sentence += "; " + games_told(document.at("games"));
  return {sentence + '.', std::move(document)};
}

}  // namespace

std::vector<PublishCommand> check_commands() {
  return {
      {"check",
       "Fetch and verify a repository as a client would, and say what it trusts and until when",
       {{"URL", "", "Origin of the repository: https:// and a host", OptionUse::required},
        {"--root", "FILE", "The root metadata that the client starts from", OptionUse::required},
        {"--ca-bundle", "FILE", "Certificates to trust (PEM); the system's unless given"},
        {"--target", "PATH", "Look this target up, too", OptionUse::repeated},
        {"--download", "", "Download the targets and verify their bytes", OptionUse::flag},
        {"--games", "", "Prove every build of the game catalogues as an install does",
         OptionUse::flag},
        {"--folder", "DIR", "Keep downloads here; a stopped one goes on when run again"}},
       check},
  };
}

}  // namespace tavro
