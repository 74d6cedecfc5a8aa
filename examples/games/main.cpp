// The games of a data folder from the command line; docs/games.md explains it piece by piece.
#include <nlohmann/json.hpp>

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "download/repository_client.h"
#include "games/game_library.h"

namespace {

void show_offers(const tavro::GameLibrary& library, tavro::TufClient& tuf) {
  for (const auto& [id, game] : library.available(tuf).games)
    for (const auto& [channel, build] : game.channels)
      std::cout << id << ' ' << channel << ' ' << build.build_id << ": " << game.display_name
                << ", " << build.installed_length << " bytes\n";
}

void show_installed(const tavro::GameLibrary& library) {
  for (const tavro::GameStatus& game : library.list()) {
    std::cout << game.game_id;
    if (game.installed) std::cout << ' ' << game.record->active->build_id;
    if (game.running) std::cout << ", running";
    if (!game.problem.empty()) std::cout << ": " << game.problem;
    std::cout << '\n';
  }
}

void install(const tavro::GameLibrary& library, tavro::TufClient& tuf, const std::string& id) {
  const tavro::GamePlan plan = library.plan(id, tuf, {});
  std::cout << "Fetches " << plan.fetch_bytes << " bytes, needs " << plan.peak_bytes
            << " on the disk.\n";
  tavro::GameRequest request;
  request.progress = [](std::string_view phase, auto done, auto total) {
    std::cerr << '\r' << phase << ' ' << done << " of " << total << "      ";
    return true;  // false stops it; the next call goes on
  };
  const tavro::GameChange change = library.install(id, tuf, request);
  std::cout << change.build_id << (change.active ? " is ready\n" : " waits for the game to end\n");
}

void play(const tavro::GameLibrary& library, const std::string& id) {
  tavro::GameSession session = library.launch(id, {});
  const tavro::GameReport& report = session.wait({});
  std::cout << "Ended: " << tavro::outcome_name(report.seen.outcome) << ", status "
            << report.seen.status << '\n';
  if (report.seen.outcome != tavro::GameOutcome::clean) {
    if (report.session.is_object())
      for (const tavro::json& crumb : report.session.at("breadcrumbs"))
        std::cout << crumb.at("category") << ": " << crumb.at("message") << '\n';
    std::cout << report.output;
  }
  library.finish_update(id, {});
}

bool verify(const tavro::GameLibrary& library, const std::string& id) {
  const tavro::GameDifferences found = library.verify(id, {});
  for (const std::string& path : found.foreign) std::cout << "Not of the game: " << path << '\n';
  std::cout << found.damaged_count << " damaged, " << found.missing_count << " missing, "
            << found.foreign_count << " not of the game\n";
  return found.is_sound();
}

void repair(const tavro::GameLibrary& library, tavro::TufClient& tuf, const std::string& id) {
  if (!verify(library, id))
    std::cout << library.repair(id, tuf, {}).replaced << " files replaced\n";
}

void run(const std::vector<std::string>& words) {
  tavro::require(words.size() >= 2, "usage", "example-games DATA-FOLDER COMMAND [GAME]");
  const std::string& command = words[1];
  const std::string id = words.size() > 2 ? words[2] : std::string();
  const tavro::GameLibrary library(words[0]);
  if (command == "list") return show_installed(library);
  if (command == "play") return play(library, id);
  if (command == "verify") return void(verify(library, id));
  if (command == "back") return void(library.roll_back(id, {}));
  if (command == "remove") return void(library.remove(id, tavro::PlayerData::kept));
  tavro::RepositoryClient repository(words[0]);
  if (command == "offers") return show_offers(library, repository.tuf());
  if (command == "install") return install(library, repository.tuf(), id);
  if (command == "repair") return repair(library, repository.tuf(), id);
  tavro::fail("usage", "Commands: list, offers, install, play, verify, repair, back, remove");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    tavro::initialize_client_runtime();
    run(tavro::process_arguments(argc, argv));
    return 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
