#include "publisher/publishing.h"

#include <algorithm>

#include "documents/game_catalog.h"
#include "documents/game_manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "publisher/game_catalogs.h"
#include "publisher/release.h"
#include "tuf/metadata.h"

namespace tavro {
namespace {

constexpr unsigned long long targets_days = 365;
constexpr unsigned long long snapshot_days = 30;
constexpr unsigned long long timestamp_days = 7;

void tell_upkeep(CommandResult& result, const CatalogUpkeep& upkeep) {
  if (upkeep.renewed.empty() && upkeep.behind.empty()) return;
  result.document["catalogs"] = {{"renewed", upkeep.renewed}, {"behind", upkeep.behind}};
  for (const std::string& platform : upkeep.behind)
    result.sentence += " The game catalogue of " + platform +
                       " does not list all of it yet; repository catalog makes it.";
}

std::vector<ChosenTarget> game_targets(const Arguments& arguments, const Release& release,
                                       const std::string& sha256) {
  using Kind = ChosenTarget::Kind;
  const GameManifest game =
      GameManifest::parse(parse_json(release.manifest_bytes, kMaxGameManifestBytes));
  const std::string channel =
      arguments.has("--channel") ? arguments.value("--channel") : std::string(kDefaultGameChannel);
  validate_game_channel(channel);
  const auto named = [&](const std::string& name) {
    return game_manifest_target(game.game_id, game.platform, name);
  };
  std::vector<ChosenTarget> chosen = {
      {named(channel), release.manifest, sha256, Kind::channel},
      {named(sha256), release.manifest, sha256, Kind::build},
      {release.archive.target, release.archive.file, release.archive.sha256, Kind::build}};
  if (release.key && !arguments.has("--hold-key"))
    chosen.push_back({release.key->target, release.key->file, release.key->sha256, Kind::key});
  return chosen;
}

/// What a build was published with stays: older manifests name it.
void require_free(const RepositoryState& state, const std::string& role,
                  const ChosenTarget& target) {
  const std::optional<ListedTarget> listed = look_up(state, target.path);
  if (!listed) return;
  require(listed->role == role, "target_conflict", [&] {
    return "Role " + listed->role + " publishes " + target.path + " already; give --role " +
           listed->role + ", or withdraw it there first";
  });
  const bool same = listed->description.at("hashes").value("sha256", "") == target.sha256;
  require(same || target.kind == ChosenTarget::Kind::channel, "target_conflict", [&] {
    return target.path + " is published with other content; give the build another identifier";
  });
}

/// A key that opens two archives would be the end of both.
void require_fresh_key(const RepositoryState& state, const ChosenTarget& key) {
  for (const auto& role : state.roles)
    for (const auto& listed : role.second.at("targets").items()) {
      const bool other =
          listed.key() == key.path || listed.value().at("hashes").value("sha256", "") != key.sha256;
      require(other, "key_reused",
              [&] { return "The key of this build is published as " + listed.key(); });
    }
}

void put(Repository& repository, const std::string& role, const ChosenTarget& target,
         const Progress& progress) {
  using Kind = ChosenTarget::Kind;
  if (target.kind != Kind::any) require_free(repository.state(), role, target);
  if (target.kind == Kind::key) require_fresh_key(repository.state(), target);
  const std::string sha256 = repository.put_target(role, target.path, target.file, progress);
  // A manifest and an archive that differ would only show on the machines of users.
  require(target.sha256.empty() || target.sha256 == sha256, "content_mismatch",
          [&] { return "The release has changed since it was made: " + path_utf8(target.file); });
  if (target.kind == Kind::any) return;
  const std::optional<ListedTarget> found = look_up(repository.state(), target.path);
  require(found && found->role == role, "target_conflict",
          [&] { return "Clients would not look for " + target.path + " in role " + role; });
}

}  // namespace

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

CommandResult publish_change(const Arguments& arguments, GameCatalogs catalogs,
                             const std::function<void(Repository&)>& change) {
  Signers signers = signers_of(arguments);
  const RepositoryExpiry expiry = expiry_of(arguments);
  Repository repository(repository_path(arguments));
  change(repository);
  CatalogUpkeep upkeep;
  if (catalogs == GameCatalogs::kept_true) upkeep = keep_catalogs(repository, signers);
  repository.publish(signers, expiry);
  CommandResult result = told(repository.state(), repository_path(arguments));
  tell_upkeep(result, upkeep);
  return result;
}

std::vector<ChosenTarget> release_targets(const Arguments& arguments,
                                          const std::filesystem::path& folder) {
  const Release release = read_published_release(folder);
  const std::string sha256 = digest(release.manifest_bytes, "sha256");
  if (release.kind == ReleaseKind::game) return game_targets(arguments, release, sha256);
  return {{path_utf8(release.manifest.filename()), release.manifest, sha256},
          {release.archive.target, release.archive.file, release.archive.sha256}};
}

CommandResult publish_targets(const Arguments& arguments, const CommandContext& context,
                              const std::vector<ChosenTarget>& chosen) {
  return publish_change(arguments, GameCatalogs::kept_true, [&](Repository& repository) {
    const Progress progress = context.phase("Copying…");
    for (const ChosenTarget& target : chosen) put(repository, role_of(arguments), target, progress);
  });
}

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
  return publish_targets(arguments, context, release_targets(arguments, folder));
}

}  // namespace tavro
