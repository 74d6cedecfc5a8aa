#include "start/direct_start.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <system_error>

#include "documents/game_manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/process/child_process.h"
#include "platform/process/image_replacement.h"
#include "start/platformed_game.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t game_record_bytes = 524288;
constexpr std::size_t stored_manifest_bytes = 4194304;
constexpr std::size_t manifest_reference_bytes = 64;

json read_document(const fs::path& path, std::size_t max_bytes) {
  return parse_json(read_file(path, max_bytes), max_bytes);
}

GameStart platform_start(const PlatformedGame& game) {
  std::error_code ignored;
  require(fs::is_regular_file(game.executable, ignored), "missing_file",
          "The game's program is missing");
  return {game.executable, game.root, game.build};
}

bool says_installed(const json& record, std::string_view game_id) {
  const json* installed = find_member(record, "installed");
  return installed != nullptr && *installed == true && has_text(record, "game_id", game_id);
}

GameManifest stored_manifest(const fs::path& root, const json& reference) {
  require(reference.is_string() &&
              reference.get_ref<const std::string&>().size() == manifest_reference_bytes,
          "invalid_state", "Installed manifest reference is malformed");
  const auto& name = reference.get_ref<const std::string&>();
  validate_identifier(name);
  json document = read_document(root / "verified-manifests" / ("application-" + name + ".json"),
                                stored_manifest_bytes);
  // The digest is of the normal form, so that white space in the file does not
  // matter.
  require(digest(document.dump(), "sha256") == name, "content_mismatch",
          "The stored game manifest changed");
  return GameManifest::parse(std::move(document));
}

GameManifest installed_manifest(const fs::path& root, const json& active) {
  const json* reference = find_member(active, "manifest_ref");
  return reference != nullptr ? stored_manifest(root, *reference)
                              : GameManifest::parse(active.at("manifest"));
}

}  // namespace

GameStart locate_installed_game(const fs::path& data_root, std::string_view game_id) {
  validate_identifier(game_id);
  if (const PlatformedGame* game = platformed_game(game_id)) return platform_start(*game);
  const fs::path root = fs::absolute(data_root).lexically_normal();
  const std::string folder = "games/" + std::string(game_id);
  const json record = read_document(root / folder / "record.json", game_record_bytes);
  require(says_installed(record, game_id), "not_installed", "The game is not installed");
  const json& active = record.at("active");
  const auto version = active.at("version").get<std::string>();
  validate_identifier(version);
  const GameManifest manifest = installed_manifest(root, active);
  require(manifest.platform == native_platform(), "platform_mismatch",
          "Installed game build is for another platform");
  GameStart start;
  start.directory = safe_join(root, folder + "/versions/" + version, true);
  start.executable = safe_join(start.directory, manifest.executable, true);
  start.build = manifest.build_id;
  std::error_code error;
  const auto size = fs::file_size(start.executable, error);
  require(!error && size == manifest.files.at(manifest.executable).length, "content_mismatch",
          "The game's program is missing or changed");
  return start;
}

void start_installed_game(const fs::path& root, std::string_view game_id, bool replace) {
  const GameStart game = locate_installed_game(root, game_id);
  if (replace) exec_process(game.executable, {}, game.directory, {});
  // Its owner dies at once: the game goes on alone.
  const ChildProcess child(game.executable, {}, game.directory, {}, ChildStreams::output_to_errors,
                           ChildEnvironment::whole, {}, ChildGroup::own, ChildControl::none);
}

bool local_storage_failure(std::string_view code) {
  constexpr std::array<std::string_view, 5> codes = {"journal_write", "insufficient_space",
                                                     "file_write", "file_sync", "permissions"};
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

}  // namespace tavro
