#include <algorithm>

#include "documents/bitmap.h"
#include "documents/game_manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "platform/files/safe_path.h"
#include "publisher/commands.h"
#include "publisher/publishing.h"
#include "publisher/release.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr const char* game_description = "game.json";
constexpr const char* game_files = "files";
constexpr std::size_t description_bytes = 65536;
/// Beyond the client's bounds, so that it is the client who tells what is too large.
constexpr std::size_t picture_bytes = 4194304;
constexpr std::size_t notes_bytes = 65536;

/// A file that game.json names, in its folder.
std::string read_beside(const fs::path& folder, const json& name, std::size_t max_bytes) {
  return read_file(safe_join(folder, name.get_ref<const std::string&>(), true), max_bytes);
}

void require_known(const json& value, std::string_view what,
                   std::initializer_list<std::string_view> known) {
  require(value.is_object(), "invalid_game",
          [&] { return std::string(what) + " must be an object"; });
  for (const auto& member : value.items())
    require(std::find(known.begin(), known.end(), member.key()) != known.end(), "invalid_game",
            [&] { return std::string(what) + " has an unknown member: " + member.key(); });
}

json artwork_of(const fs::path& folder, const json& described) {
  require_known(described, "The artwork of game.json", {"file", "alternative_text"});
  const json& name = described.at("file");
  const std::string bitmap = read_beside(folder, name, picture_bytes);
  require(bitmap.size() >= kBitmapHeaderBytes && bitmap.starts_with("BM"), "invalid_game",
          [&] { return "Artwork is a BMP file, and this is none: " + name.get<std::string>(); });
  return {{"format", "bmp-rgb24-v1"},
          {"width", little_endian(bitmap, kBitmapWidthOffset, 4)},
          {"height", little_endian(bitmap, kBitmapHeightOffset, 4)},
          {"bmp_hex", hex({reinterpret_cast<const unsigned char*>(bitmap.data()), bitmap.size()})},
          {"alternative_text", described.at("alternative_text")}};
}

/// What game.json and the files that it names add to the manifest of a build.
json manifest_members(const fs::path& folder, const json& described) {
  json members = {{"minimum_launcher", 1},
                  {"game_id", described.at("game_id")},
                  {"display_name", described.at("display_name")}};
  for (const char* optional : {"presentation", "sdk"})
    if (const json* member = find_member(described, optional)) members[optional] = *member;
  if (const json* notes = find_member(described, "notes"))
    members["release_notes"] = read_beside(folder, *notes, notes_bytes);
  if (!members.contains("presentation")) return members;
  json& presentation = members["presentation"];
  if (const json* artwork = find_member(presentation, "artwork"))
    presentation["artwork"] = artwork_of(folder, *artwork);
  return members;
}

ReleaseRequest request_of(const Arguments& arguments) {
  const fs::path folder = path_option(arguments, "DIR");
  ReleaseRequest request = packing_request(arguments, ReleaseKind::game);
  request.encrypt = arguments.has("--encrypt");
  request.folder = folder / game_files;
  const json described =
      parse_json(read_file(folder / game_description, description_bytes), description_bytes);
  require_known(described, game_description,
                {"game_id", "display_name", "executable", "presentation", "notes", "sdk"});
  for (const std::string key : {"game_id", "display_name", "executable"})
    require(described.contains(key) && described.at(key).is_string(), "invalid_game",
            [&] { return "game.json needs the text " + key; });
  read_fields("invalid_game", "game.json has missing or malformed fields", [&] {
    request.game = manifest_members(folder, described);
    request.identity.executable = described.at("executable").get<std::string>();
    // Beside its manifests, so that one delegation covers all of a game.
    if (request.identity.archive_target.empty())
      request.identity.archive_target = "games/" + text_member(described, "game_id") + '/' +
                                        request.identity.platform + '/' +
                                        request.identity.build_id + ".tar.zst";
  });
  return request;
}

Release packed(const Arguments& arguments, const CommandContext& context) {
  return make_release(request_of(arguments), context.phase("Packing…"));
}

GameManifest manifest_of(const Release& release) {
  return GameManifest::parse(parse_json(release.manifest_bytes, release.manifest_bytes.size()));
}

CommandResult make_game(const Arguments& arguments, const CommandContext& context) {
  const Release release = packed(arguments, context);
  const GameManifest game = manifest_of(release);
  return {"Packed " + game.display_name + " (" + game.game_id + ") " + game.build_id + " in " +
              path_utf8(release.manifest.parent_path()) + ".",
          {{"game_id", game.game_id},
           {"build_id", game.build_id},
           {"manifest", path_utf8(release.manifest)},
           {"archive", path_utf8(release.archive.file)},
           {"presentation", game.presentation.summary()}}};
}

CommandResult release_game(const Arguments& arguments, const CommandContext& context) {
  const Release release = packed(arguments, context);
  const GameManifest game = manifest_of(release);
  CommandResult result = publish_release(arguments, context, release.manifest.parent_path());
  result.document.update({{"game_id", game.game_id},
                          {"build_id", game.build_id},
                          {"manifest_sha256", digest(release.manifest_bytes, "sha256")}});
  return result;
}

std::vector<OptionRule> game_options() {
  std::vector<OptionRule> options = packing_options(
      {{"--encrypt", "", "Encrypt the archive under a key of its own", OptionUse::flag}});
  options.insert(options.begin(),
                 {"DIR", "", "The folder of game.json, what that names, and the build in \"files\"",
                  OptionUse::required});
  return options;
}

std::vector<OptionRule> release_options() {
  std::vector<OptionRule> options = game_options();
  for (const OptionRule& rule : {channel_rule, hold_key_rule, delegator_rule})
    options.push_back(rule);
  return signing_options(std::move(options));
}

}  // namespace

std::vector<PublishCommand> game_commands() {
  return {
      {"game", "Pack a game with what its players see of it", game_options(), make_game},
      {"release game", "Pack a game and publish it as the newest build of a channel",
       release_options(), release_game},
  };
}

}  // namespace tavro
