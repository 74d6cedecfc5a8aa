#include <set>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "publisher/commands.h"
#include "publisher/release.h"
#include "publisher/repository.h"
#include "tuf/client_limits.h"
#include "tuf/metadata.h"

namespace tavro {
namespace {

constexpr unsigned long long targets_days = 365;
constexpr unsigned long long snapshot_days = 30;
constexpr unsigned long long timestamp_days = 7;

std::filesystem::path repository_path(const Arguments& arguments) {
  return path_option(arguments, "--repository");
}

Signers signers_of(const Arguments& arguments) {
  const std::vector<std::string>& files = arguments.values("--key");
  require(!files.empty(), "usage", "Choose a key to sign with: --key FILE");
  std::vector<SigningKey> keys;
  for (const std::string& file : files) keys.push_back(SigningKey::load(path_from_utf8(file)));
  return Signers(std::move(keys));
}

RepositoryExpiry expiry_of(const Arguments& arguments) {
  const auto in_days = [&](std::string_view option, unsigned long long fallback) {
    return expiry_in_days(static_cast<unsigned>(arguments.number(option, 1, most_days, fallback)));
  };
  return {.targets = in_days("--targets-days", targets_days),
          .snapshot = in_days("--snapshot-days", snapshot_days),
          .timestamp = in_days("--timestamp-days", timestamp_days)};
}

std::string role_of(const Arguments& arguments) {
  return arguments.has("--role") ? arguments.value("--role") : "targets";
}

/// What the repository says now.
CommandResult told(const RepositoryState& state, const std::filesystem::path& path) {
  json roles;
  std::string list, until, first;
  const auto add = [&](const std::string& role, const json& body) {
    const auto expires = body.at("expires").get<std::string>();
    roles[role] = {{"version", body.at("version")}, {"expires", expires}};
    list += (list.empty() ? "" : ", ") + role + ' ' + body.at("version").dump();
    if (!until.empty() && parse_tuf_time(until) <= parse_tuf_time(expires)) return;
    until = expires;
    first = role;
  };
  add("root", state.root);
  add("timestamp", state.timestamp);
  add("snapshot", state.snapshot);
  for (const auto& [role, body] : state.roles) add(role, body);
  return {"Published " + list + " in " + path_utf8(path) + "; " + first + " expires first, at " +
              until + ".",
          {{"path", path_utf8(path)}, {"roles", std::move(roles)}, {"trusted_until", until}}};
}

/// Opens the repository, lets `change` collect, and publishes.
template <typename Change>
CommandResult published(const Arguments& arguments, Change&& change) {
  Signers signers = signers_of(arguments);
  const RepositoryExpiry expiry = expiry_of(arguments);
  Repository repository(repository_path(arguments));
  change(repository);
  repository.publish(signers, expiry);
  return told(repository.state(), repository_path(arguments));
}

CommandResult new_repository(const Arguments& arguments, const CommandContext&) {
  Signers signers = signers_of(arguments);
  const std::string root = read_file(path_option(arguments, "--root"), client_limits.root_bytes);
  const std::filesystem::path place = repository_path(arguments);
  return told(Repository::create(place, root, signers, expiry_of(arguments)), place);
}

struct ChosenTarget {
  std::string path;
  std::filesystem::path file;
  std::string sha256;  ///< empty for any content
};

/// The two files of a release, under their own target paths.
void choose_release(std::vector<ChosenTarget>& chosen, const std::filesystem::path& folder) {
  const Release release = read_client_release(folder);
  chosen.push_back({path_utf8(release.manifest.filename()), release.manifest,
                    digest(release.manifest_bytes, "sha256")});
  chosen.push_back({release.archive_target, release.archive, release.archive_sha256});
}

/// "PATH=FILE", or releases.
std::vector<ChosenTarget> chosen_targets(const Arguments& arguments) {
  std::vector<ChosenTarget> chosen;
  for (const std::string& text : arguments.values("--target")) {
    const std::size_t equals = text.find('=');
    require(equals != std::string::npos, "usage",
            [&] { return "A target is given as PATH=FILE: " + text; });
    chosen.push_back({text.substr(0, equals), path_from_utf8(text.substr(equals + 1)), {}});
  }
  for (const std::string& folder : arguments.values("--release"))
    choose_release(chosen, path_from_utf8(folder));
  require(!chosen.empty(), "usage", "Choose what to add with --target PATH=FILE or --release DIR");
  std::set<std::string> paths;
  for (const ChosenTarget& target : chosen)
    require(paths.insert(target.path).second, "usage",
            [&] { return "Target was given twice: " + target.path; });
  return chosen;
}

CommandResult publish_targets(const Arguments& arguments, const CommandContext& context,
                              const std::vector<ChosenTarget>& chosen) {
  return published(arguments, [&](Repository& repository) {
    const Progress progress = context.phase("Copying…");
    for (const ChosenTarget& target : chosen) {
      const std::string sha256 =
          repository.put_target(role_of(arguments), target.path, target.file, progress);
      // A manifest and an archive that differ would only show on the machines of users.
      require(target.sha256.empty() || target.sha256 == sha256, "content_mismatch", [&] {
        return "The release has changed since it was made: " + path_utf8(target.file);
      });
    }
  });
}

CommandResult add_targets(const Arguments& arguments, const CommandContext& context) {
  return publish_targets(arguments, context, chosen_targets(arguments));
}

CommandResult remove_targets(const Arguments& arguments, const CommandContext&) {
  const std::vector<std::string>& paths = arguments.values("--target");
  require(!paths.empty(), "usage", "Choose what to remove with --target PATH");
  return published(arguments, [&](Repository& repository) {
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

CommandResult delegate(const Arguments& arguments, const CommandContext&) {
  Delegation delegation{.name = arguments.value("--name"),
                        .keys = keys_of(arguments, "--role-key", "--threshold", {}),
                        .paths = arguments.values("--path"),
                        .hash_prefixes = arguments.values("--hash-prefix"),
                        .terminating = arguments.has("--terminating")};
  require(!delegation.keys.records.empty(), "usage",
          "Choose who signs for the role with --role-key FILE");
  return published(arguments, [&](Repository& repository) {
    repository.delegate(role_of(arguments), delegation);
  });
}

CommandResult undelegate(const Arguments& arguments, const CommandContext&) {
  return published(
      arguments, [&](Repository& repository) { repository.undelegate(arguments.value("--name")); });
}

CommandResult rotate(const Arguments& arguments, const CommandContext&) {
  const std::string expires = root_expiry(arguments);
  return published(arguments, [&](Repository& repository) {
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
  return published(arguments, [&](Repository& repository) {
    for (const std::string& role : roles) repository.renew(role);
  });
}

CommandResult refresh_timestamp(const Arguments& arguments, const CommandContext&) {
  return published(arguments, [](Repository& repository) { repository.renew("timestamp"); });
}

CommandResult prune(const Arguments& arguments, const CommandContext&) {
  const std::filesystem::path path = repository_path(arguments);
  const std::size_t removed = Repository(path).prune();
  return {
      "Removed " + std::to_string(removed) + " files that " + path_utf8(path) + " no longer names.",
      {{"path", path_utf8(path)}, {"removed", removed}}};
}

const OptionRule repository_rule{"--repository", "DIR", "The repository", OptionUse::required};
const OptionRule key_rule{"--key", "FILE",
                          "A private key; each document is signed by those that its role lists",
                          OptionUse::repeated};
const OptionRule timestamp_days_rule{"--timestamp-days", "N",
                                     "Days until the timestamp expires; 7"};
const OptionRule delegator_rule{"--role", "NAME", "The role that lists it; targets unless given"};

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
       {"--path", "PATTERN", "Target paths, with *, ? and [...]", OptionUse::repeated},
       {"--hash-prefix", "HEX", "Or the beginning of their SHA-256", OptionUse::repeated},
       {"--terminating", "", "What it does not list, no later role may list", OptionUse::flag}});
}

}  // namespace

std::vector<OptionRule> signing_options(std::vector<OptionRule> own) {
  own.insert(own.begin(), repository_rule);
  own.push_back(key_rule);
  own.push_back({"--targets-days", "N", "Days until what targets roles sign now expires; 365"});
  own.push_back({"--snapshot-days", "N", "The same for the snapshot; 30"});
  own.push_back(timestamp_days_rule);
  return own;
}

CommandResult publish_release(const Arguments& arguments, const CommandContext& context,
                              const std::filesystem::path& folder) {
  std::vector<ChosenTarget> chosen;
  choose_release(chosen, folder);
  return publish_targets(arguments, context, chosen);
}

std::vector<PublishCommand> repository_commands() {
  return {
      {"repository new", "Make a repository from its first root",
       signing_options({{"--root", "FILE", "Signed root metadata", OptionUse::required}}),
       new_repository},
      {"repository add", "Publish targets",
       signing_options(
           {{"--target", "PATH=FILE", "A target path and its file", OptionUse::repeated},
            {"--release", "DIR", "A launcher or bootstrap release: its manifest and its archive",
             OptionUse::repeated},
            delegator_rule}),
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
