#include "publisher/check.h"
#include "publisher/commands.h"

namespace tavro {
namespace {

CommandResult check(const Arguments& arguments, const CommandContext& context) {
  const CheckRequest request{.url = arguments.value("URL"),
                             .root = path_option(arguments, "--root"),
                             .ca_bundle = path_option(arguments, "--ca-bundle"),
                             .targets = arguments.values("--target"),
                             .download = arguments.has("--download")};
  json document = check_repository(request, context.phase("Checking…"));
  std::string sentence = "A client trusts " + request.url + " until " +
                         document.at("trusted_until").get<std::string>() + ":";
  std::string separator = " ";
  for (const auto& [role, validity] : document.at("roles").items()) {
    sentence += separator + role + ' ' + validity.at("version").dump();
    separator = ", ";
  }
  for (const json& target : document.at("targets"))
    sentence += "; " + target.at("path").get<std::string>() + " has " + target.at("length").dump() +
                " bytes" + (request.download ? " and verifies" : "");
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
        {"--download", "", "Download the targets and verify their bytes", OptionUse::flag}},
       check},
  };
}

}  // namespace tavro
