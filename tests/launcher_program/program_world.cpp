#include "launcher_program/program_world.h"

#include <iterator>

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
  run("keys new --out key.pem");
  run("root new --days 9 --out root.json --key key.pem");
  run("repository new --repository repository --root root.json --key key.pem");
  server.emplace(folder.path() / "server", folder.path() / "repository/public");
}

void GameRepository::publish(const std::string& game, const std::string& build,
                             const std::string& script, std::size_t bytes,
                             const std::string& channel) {
  const fs::path tree = folder.path() / (game + build);
  const std::string name = game == "star" ? "星の王子さま" : game;
  put_file(tree / "game.json",
           json({{"game_id", game}, {"display_name", name}, {"executable", "run"}}).dump());
  put_file(tree / "files/run", "#!/bin/sh\n# " + build + "\n" + script + "\n");
  fs::permissions(tree / "files/run", fs::perms(0755));
  std::string noise;
  for (std::size_t i = 0; noise.size() < bytes; ++i)
    noise += digest(build + std::to_string(i), "sha256");
  put_file(tree / "files/noise", noise);
  run("release game '" + tree.string() + "' --build " + build + " --channel " + channel +
      " --out " + game + "-" + build + " --repository repository --key key.pem");
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
