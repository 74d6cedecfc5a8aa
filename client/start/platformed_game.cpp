#include "start/platformed_game.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t config_bytes = 16384;
constexpr std::size_t identifier_bytes = 128;
constexpr std::size_t name_bytes = 200;
constexpr std::size_t path_bytes = 4096;
constexpr std::size_t origin_bytes = 2048;

std::string text(const json& value, const std::string& key, std::size_t limit) {
  const json* member = find_member(value, key);
  if (member == nullptr || !member->is_string())
    fail("platformed_config", "tavro-platform.json needs a \"" + key + "\" text");
  const auto& content = member->get_ref<const std::string&>();
  require(!content.empty() && content.size() <= limit && content.find('\0') == content.npos,
          "platformed_config",
          [&] { return "tavro-platform.json has an unusable \"" + key + "\""; });
  return content;
}

std::string identifier(const json& value, const std::string& key) {
  auto id = text(value, key, identifier_bytes);
  validate_identifier(id);
  return id;
}

fs::path path_below(const fs::path& root, const json& value, const std::string& key) {
  return safe_join(root, text(value, key, path_bytes), true);
}

bool is_plain_origin(std::string_view origin) {
  constexpr std::string_view scheme = "https://";
  return origin.starts_with(scheme) && origin.size() > scheme.size() &&
         origin.substr(scheme.size()).find_first_of("/?#@ \t\\") == origin.npos;
}

void require_known_keys(const json& value) {
  constexpr std::array<std::string_view, 8> keys = {"schema_version", "game_id",  "name",
                                                    "build",          "channel",  "executable",
                                                    "crash_service",  "ca_bundle"};
  for (const auto& [key, member] : value.items())
    require(std::find(keys.begin(), keys.end(), key) != keys.end(), "platformed_config",
            [&name = key] { return "tavro-platform.json has an unknown field: " + name; });
}

std::optional<PlatformedGame> read_platformed_game() {
  const fs::path folder = current_executable_path().parent_path();
  const fs::path file = folder / "tavro-platform.json";
  if (!stands(file)) return std::nullopt;
  return parse_platformed_game(parse_json(read_file(file, config_bytes), config_bytes), folder);
}

}  // namespace

const std::optional<PlatformedGame>& platformed_game() {
  static const std::optional<PlatformedGame> game = read_platformed_game();
  return game;
}

const PlatformedGame* platformed_game(std::string_view id) {
  const auto& game = platformed_game();
  return game && game->game_id == id ? &*game : nullptr;
}

PlatformedGame parse_platformed_game(const json& value, const fs::path& folder) {
  require(has_integer(value, "schema_version", 1), "platformed_config",
          "tavro-platform.json is not a version 1 platform file");
  require_known_keys(value);
  PlatformedGame game;
  game.game_id = identifier(value, "game_id");
  game.name = text(value, "name", name_bytes);
  game.build = identifier(value, "build");
  game.channel = value.contains("channel") ? identifier(value, "channel") : "stable";
  game.root = fs::absolute(folder).lexically_normal();
  game.executable = path_below(game.root, value, "executable");
  game.crash_service = text(value, "crash_service", origin_bytes);
  require(is_plain_origin(game.crash_service), "platformed_config",
          "tavro-platform.json needs \"crash_service\" as a plain https:// origin");
  if (value.contains("ca_bundle")) game.ca_bundle = path_below(game.root, value, "ca_bundle");
  return game;
}

fs::path platformed_data_root(const PlatformedGame& game) {
  return user_data_root() / "platformed" / game.game_id;
}

}  // namespace tavro
