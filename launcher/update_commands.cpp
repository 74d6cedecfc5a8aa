// Newer builds of games: what there is, and how they come.

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include "domain/error.h"
#include "exit_status.h"
#include "game_report.h"
#include "game_work.h"
#include "games/game_library.h"
#include "handlers.h"
#include "operation_run.h"
#include "preferences/settings.h"
#include "text_layout.h"
#include "transport/https.h"

namespace tavro::program {
namespace {

// A look in passing takes no longer, and no more.
constexpr std::chrono::seconds check_time{20};
constexpr unsigned long long check_bytes = 64ULL << 20;
constexpr std::chrono::milliseconds look_period{200};

json update_document(const std::string& game, const GameUpdate& update) {
  return {{"game_id", game},
          {"build_id", update.build_id},
          {"newer", update.newer},
          {"deferred", update.deferred},
          {"staged", update.staged},
          {"fetch_bytes", update.plan.fetch_bytes},
          {"installed_bytes", update.plan.installed_bytes},
          {"peak_bytes", update.plan.peak_bytes},
          {"shortfall_bytes", update.plan.shortfall_bytes}};
}

std::string update_word(const json& update) {
  if (update.contains("problem")) return update.at("problem").at("message");
  if (!update.at("newer").get<bool>()) return "up to date";
  if (update.at("deferred").get<bool>()) return "put off";
  return update.at("staged").get<bool>() ? "ready to be used" : "available";
}

/// A failure that is one game's own, and not that of the whole look.
bool concerns_one_game(const Error& error) {
  const ExitStatus status = exit_status(error.code);
  return status != exit_network && status != exit_cancelled && status != exit_busy;
}

json check_games(Context& context) {
  json updates = json::array();
  const GameLibrary library(context.root);
  for (const GameStatus& game : library.list()) {
    if (!game.installed) continue;
    context.require_going_on();
    context.show("asking for " + game.game_id, 0, 0);
    try {
      updates.push_back(update_document(game.game_id, library.check(game.game_id, context.tuf())));
    } catch (const Error& error) {
      if (!concerns_one_game(error)) throw;
      updates.push_back({{"game_id", game.game_id},
                         {"problem", {{"code", error.code}, {"message", error.what()}}}});
    }
  }
  return updates;
}

bool is_news(const json& update) {
  return !update.contains("problem") && update.at("newer").get<bool>() &&
         !update.at("deferred").get<bool>();
}

Answer updates_answer(json updates, bool news_only) {
  std::vector<std::vector<std::string>> rows = {{"GAME", "BUILD", "DOWNLOAD", "STATE"}};
  for (const json& update : updates) {
    if (news_only && !is_news(update)) continue;
    rows.push_back({update.at("game_id"), update.value("build_id", "-"),
                    byte_text(update.value("fetch_bytes", 0ULL)), update_word(update)});
  }
  std::string text = rows.size() > 1 ? table_text(rows) : "";
  if (text.empty() && !news_only) text = "No game is installed.";
  return {{{"checked", true}, {"updates", std::move(updates)}}, std::move(text)};
}

Answer check_in_passing(Context& context) {
  context.be_quiet();
  const auto unchecked = [](const std::string& reason) {
    return Answer{{{"checked", false}, {"reason", reason}, {"updates", json::array()}}, ""};
  };
  if (!settings_or_defaults(context.root).background_checks) return unchecked("turned_off");
  auto budget = std::make_shared<HttpsBudget>();
  budget->deadline = std::chrono::steady_clock::now() + check_time;
  budget->limit = check_bytes;
  budget->cancel = [&] { return context.stopped(); };
  context.bound_requests(std::move(budget));
  try {
    return updates_answer(check_games(context), true);
  } catch (const Error& error) {
    // Without a network there is nothing to tell; whoever wants to know asks aloud.
    return unchecked(error.code);
  }
}

/// The build of a session runs until its process has ended, or nobody holds its lease any more.
bool still_plays(const GameStatus& game, const std::string& session) {
  if (!game.running) return false;
  const bool known = game.last_start && game.last_start->session_id == session;
  return session.empty() || (known && game.last_start->ended == 0);
}

void wait_for_exit(Context& context, const GameLibrary& library, const std::string& session) {
  while (still_plays(library.status(context.subject()), session)) {
    require(context.show("waiting for the game to end", 0, 0), "cancelled",
            "The game was not waited for any longer; the build stays ready for the next start");
    std::this_thread::sleep_for(look_period);
  }
}

Answer update_after_exit(Context& context) {
  const GameLibrary library(context.root);
  const std::string& game = context.subject();
  const std::string build = context.option("--build");
  const std::string session = context.option("--session");
  GameStatus status = library.status(game);
  require(status.installed, "not_installed",
          [&] { return "The game " + game + " is not installed"; });
  if (!session.empty())
    require(status.last_start && status.last_start->session_id == session, "not_found",
            "That session is not the last one of this game");
  const bool ready = status.record->preload && status.record->preload->build_id == build;
  if (!ready && status.record->active->build_id != build)
    library.preload(game, context.tuf(), request_for_build(context, library, build));
  context.close_repository();
  wait_for_exit(context, library, session);
  const GameChange change = library.finish_update(game, context.progress());
  require(change.build_id == build, "build_not_offered",
          [&] { return "Another build was put into use meanwhile: " + change.build_id; });
  return change_answer(context, library, change, "updated");
}

}  // namespace

Answer update_game(Context& context) {
  const bool after_exit = context.flag("--after-exit");
  Answer answer = as_operation(context, [&] {
    if (after_exit) return update_after_exit(context);
    const GameLibrary library(context.root);
    const GameChange change =
        library.update(context.subject(), context.tuf(), {.progress = context.progress()});
    return change_answer(context, library, change, "updated");
  });
  context.close_repository();
  return context.flag("--launch") ? launch_after(context, std::move(answer)) : answer;
}

Answer preload_game(Context& context) {
  return as_operation(context, [&] {
    const GameLibrary library(context.root);
    const std::string build = context.option("--build");
    GameRequest request{.progress = context.progress()};
    if (!build.empty()) request = request_for_build(context, library, build);
    const GameChange change = library.preload(context.subject(), context.tuf(), request);
    return change_answer(context, library, change, "preloaded");
  });
}

Answer list_preloads(Context& context) {
  json preloads = json::array();
  std::vector<std::vector<std::string>> rows = {{"GAME", "BUILD", "IN USE"}};
  for (const GameStatus& game : GameLibrary(context.root).list()) {
    if (!game.record || !game.record->preload) continue;
    const std::string& build = game.record->preload->build_id;
    const json active = game.record->active ? json(game.record->active->build_id) : json();
    preloads.push_back(
        {{"game_id", game.game_id}, {"build_id", build}, {"active_build_id", active}});
    rows.push_back({game.game_id, build, active.is_null() ? "-" : active.get<std::string>()});
  }
  const std::string text = preloads.empty() ? "No build is preloaded." : table_text(rows);
  return {{{"preloads", std::move(preloads)}}, text};
}

Answer discard_preload(Context& context) {
  const GameLibrary library(context.root);
  const GameStatus game = library.status(context.subject());
  const std::string build = context.option("--build");
  const bool there = game.record && game.record->preload && game.record->preload->build_id == build;
  require(there, "not_staged",
          [&] { return "Build " + build + " of " + context.subject() + " is not preloaded"; });
  library.discard(context.subject());
  return {{{"game_id", context.subject()}, {"build_id", build}},
          "Build " + build + " of " + context.subject() + " is gone."};
}

Answer check_updates(Context& context) {
  if (context.flag("--background")) return check_in_passing(context);
  return updates_answer(check_games(context), false);
}

Answer show_update(Context& context) {
  context.show("asking the repository", 0, 0);
  const GameUpdate update = GameLibrary(context.root).check(context.subject(), context.tuf());
  const json document = update_document(context.subject(), update);
  std::vector<std::string> lines = {"Build " + update.build_id + " of " + context.subject() + ": " +
                                    update_word(document)};
  if (update.newer) {
    lines.push_back("Download: " + byte_text(update.plan.fetch_bytes));
    lines.push_back("On disk: " + byte_text(update.plan.installed_bytes) + ", and while it comes " +
                    byte_text(update.plan.peak_bytes));
    if (update.plan.shortfall_bytes != 0)
      lines.push_back("There is not enough room: free " + byte_text(update.plan.shortfall_bytes));
  }
  return {{{"update", document}}, line_text(lines)};
}

Answer defer_update(Context& context) {
  const std::string build = context.option("--build");
  GameLibrary(context.root).defer(context.subject(), build, 0);
  return {{{"game_id", context.subject()}, {"build_id", build}, {"deferred", true}},
          "Build " + build + " of " + context.subject() + " is put off until another one comes."};
}

}  // namespace tavro::program
