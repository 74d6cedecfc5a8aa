#pragma once

#include "support/testing.h"
#include "system/installer_program.h"
#include "system/nginx.h"

namespace tavro::program_test {

/// A repository of games behind a real server, for all tests of the process.
class GameRepository {
 public:
  GameRepository();

  /// Packs a build, with so many bytes that nothing compresses, and publishes it as the channel's
  /// newest.
  void publish(const std::string& game, const std::string& build, const std::string& script,
               std::size_t bytes = 1000, const std::string& channel = "stable");

  TempFolder folder;
  fs::path root = folder.path() / "root.json";
  std::optional<Nginx> server;

 private:
  void run(const std::string& words) const;
};

GameRepository& repository();

/// A data folder, and the real program on it.
struct Client {
  Client();

  Started start(const std::string& line, const Launched::Environment& environment = {});
  /// As a person asks, and as a program does.
  Ending ask(const std::string& line);
  json answer(const std::string& line, int status = 0);

  TempFolder folder;
  fs::path data = folder.path() / "data";
};

}  // namespace tavro::program_test
