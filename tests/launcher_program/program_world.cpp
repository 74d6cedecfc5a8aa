#include "launcher_program/program_world.h"

#include <iterator>

#include "documents/game_manifest.h"
#include "platform/host/native_platform.h"
#include "support/installation.h"

namespace tavro::program_test {

GameRepository& repository() {
  static GameRepository shared;
  return shared;
}

void GameRepository::run(const std::string& words) const {
  const std::string line = "cd '" + folder.path().string() + "' && '" +
                           program("tavro-publish").string() + "' " + words + " >log 2>&1";
  if (std::system(line.c_str()) != 0)
    throw std::runtime_error(words + ": " + read_file(folder.path() / "log", 1 << 20));
}

GameRepository::GameRepository() {
  catalog_.platform = native_platform();
  run("keys new --out key.pem");
  run("root new --days 9 --out root.json --key key.pem");
  run("repository new --repository repository --root root.json --key key.pem");
  server.emplace(folder.path() / "server", folder.path() / "repository/public");
}

void GameRepository::publish(const std::string& game, const std::string& build,
                             const std::string& script, std::size_t bytes,
                             const std::string& channel) {
  const fs::path tree = folder.path() / (game + build);
  const std::string out = game + "-" + build;
  const std::string name = game == "star" ? "星の王子さま" : game;
  put_file(tree / "game.json",
           json({{"game_id", game}, {"display_name", name}, {"executable", "run"}}).dump());
  put_file(tree / "files/run", "#!/bin/sh\n# " + build + "\n" + script + "\n");
  fs::permissions(tree / "files/run", fs::perms(0755));
  std::string noise;
  for (std::size_t i = 0; noise.size() < bytes; ++i)
    noise += digest(build + std::to_string(i), "sha256");
  put_file(tree / "files/noise", noise);
  run("game '" + tree.string() + "' --build " + build + " --out " + out);
  const std::string text = read_file(folder.path() / out / "game.manifest.json", 1 << 22);
  const GameManifest manifest = GameManifest::parse(json::parse(text));
  const std::string sha256 = digest(text, "sha256");
  catalog_.games[game].game_id = game;
  catalog_.games[game].display_name = name;
  catalog_.games[game].channels[channel] = {build, game_download_length(manifest),
                                            manifest.expanded_length, sha256, text.size()};
  put_file(folder.path() / "catalog.json", catalog_.to_json().dump());
  const std::string archive =
      "game-" + game + "-" + std::string(native_platform()) + "-" + build + ".tar.zst";
  const std::string manifest_file = "=" + out + "/game.manifest.json";
  run("repository add --repository repository --key key.pem --target " +
      game_catalog_target(native_platform()) + "=catalog.json --target " +
      game_manifest_target(game, native_platform(), channel) + manifest_file + " --target " +
      game_manifest_target(game, native_platform(), sha256) + manifest_file + " --target " +
      archive + "=" + out + "/" + archive);
}

Client::Client() {
  put_file(data / "placeholder", "");
  fs::remove(data / "placeholder");
  fs::permissions(data, fs::perms(0700));
  const GameRepository& from = repository();
  answer("repository configure --origin " + from.server->origin() + " --root " +
         from.root.string() + " --ca-bundle " + from.server->bundle().string());
}

Started Client::start(const std::string& line, const Launched::Environment& environment) {
  std::istringstream words(line);
  std::vector<std::string> arguments = {"--data-dir", data};
  arguments.insert(arguments.end(), std::istream_iterator<std::string>(words), {});
  return {folder.path(), program("tavro"), arguments, environment};
}

Ending Client::ask(const std::string& line) { return start(line).wait(); }

json Client::answer(const std::string& line, int status) {
  const Ending ending = ask(line + " --json");
  EXPECT_EQ(ending.status, status) << line << ": " << ending.output << ending.errors;
  EXPECT_EQ(std::count(ending.output.begin(), ending.output.end(), '\n'), 1) << ending.output;
  json document = json::parse(ending.output, nullptr, false);
  EXPECT_TRUE(has_integer(document, "schema_version", 1)) << ending.output;
  return document;
}

}  // namespace tavro::program_test
