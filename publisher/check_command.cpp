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

CommandResult check(const Arguments& arguments, const CommandContext& context) {
  const CheckRequest request{.url = arguments.value("URL"),
                             .root = path_option(arguments, "--root"),
                             .ca_bundle = path_option(arguments, "--ca-bundle"),
                             .targets = arguments.values("--target"),
                             .download = arguments.has("--download"),
                             .folder = path_option(arguments, "--folder")};
  require(request.download || request.folder.empty(), "usage", "--folder needs --download");
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
        {"--folder", "DIR", "Keep downloads here; a stopped one goes on when run again"}},
       check},
  };
}

}  // namespace tavro
