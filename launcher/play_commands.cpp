// Starting a game, watching it, and its folders.

#include <chrono>
#include <memory>
#include <thread>

#include "crashes/crash_store.h"
#include "distributor/launch_gate.h"
#include "domain/error.h"
#include "domain/input.h"
#include "exit_status.h"
#include "game_report.h"
#include "game_work.h"
#include "games/game_library.h"
#include "handlers.h"
#include "installation/data_folder.h"
#include "platform/files/safe_path.h"
#include "platform/process/image_replacement.h"
#include "reachable_repository.h"
#include "text_layout.h"
#include "transport/https.h"

namespace tavro::program {
namespace {

constexpr std::chrono::milliseconds look_period{200};

/// A build that waits is put into use first, unless the player wants the one that is there. One
/// that cannot be now waits on; the game starts all the same.
std::string bring_up_to_date(Context& context, const GameLibrary& library) {
  const GameStatus game = library.status(context.subject());
  if (context.flag("--play-current") || !game.record || !game.record->preload) return {};
  try {
    const GameChange change = library.finish_update(context.subject(), context.progress());
    return "Build " + change.build_id + " is in use now.\n";
  } catch (const Error& error) {
    if (error.code == "cancelled") throw;
    return std::string("The newer build waits on: ") + error.what() + "\n";
  }
}

/// Asks the repository what the player has to agree to, but does not keep the player waiting for
/// it.
void require_agreed(Context& context) {
  constexpr std::chrono::seconds patience{3};
  constexpr unsigned long long most_bytes = 16777216;
  auto budget = std::make_shared<HttpsBudget>();
  budget->deadline = std::chrono::steady_clock::now() + patience;
  budget->limit = most_bytes;
  context.bound_requests(std::move(budget));
  context.show("asking the repository", 0, 0);
  require_agreements(context.root, context.subject(), reachable_repository(context));
  context.close_repository();
  context.bound_requests(nullptr);
}

/// Keeps a report if the game ended badly, and answers a sentence of it. How the game ended is told
/// without one all the same.
std::string keep_crash_report(Context& context, const GameReport& report, json& document) {
  document["crash_report"] = nullptr;
  try {
    const auto id = CrashStore(context.root).keep(context.subject(), report);
    if (!id) return {};
    document["crash_report"] = *id;
    return "\nA crash report was kept: tavro crashes show " + *id;
  } catch (const Error& error) {
    return std::string("\nNo crash report was kept: ") + error.what();
  }
}

json session_document(const std::string& game, const GameReport& report) {
  return {{"game_id", game},
          {"ended", report.phase == GamePhase::ended},
          {"session", start_document(report.seen)},
          {"record", report.session},
          {"problem", report.session_problem.empty() ? json() : json(report.session_problem)},
          {"output", report.output}};
}

std::string report_text(const GameReport& report) {
  std::string text = start_sentence(report.seen);
  if (report.seen.outcome == GameOutcome::clean) return text;
  if (report.session.is_object() && report.session.contains("breadcrumbs"))
    for (const json& crumb : report.session.at("breadcrumbs"))
      text += "\n" + crumb.value("category", "") + ": " + crumb.value("message", "");
  if (!report.output.empty()) text += "\nThe end of its output:\n" + report.output;
  return text;
}

Answer seen_answer(const std::string& game, const GameStartSeen& seen, bool ended) {
  const bool clean = seen.outcome == GameOutcome::clean;
  return {{{"game_id", game}, {"ended", ended}, {"session", start_document(seen)}},
          start_sentence(seen),
          clean || seen.outcome == GameOutcome::unknown ? exit_done : exit_game_failed};
}

}  // namespace

Answer launch_game(Context& context) {
  const GameLibrary library(context.root);
  const std::string& game = context.subject();
  const std::string news = bring_up_to_date(context, library);
  require_agreed(context);
  GameSession session = library.launch(game, {});
  context.clear_progress();
  const GameReport& report = session.wait([&] { return context.stopped(); });
  json document = session_document(game, report);
  if (report.phase != GamePhase::ended)
    return {std::move(document),
            news + "The game goes on; how it ends is not seen. Look with: tavro status " + game,
            exit_cancelled};
  const std::string kept = keep_crash_report(context, report, document);
  return {std::move(document), news + report_text(report) + kept,
          report.seen.outcome == GameOutcome::clean ? exit_done : exit_game_failed};
}

Answer observe_game(Context& context) {
  const GameLibrary library(context.root);
  const std::string wanted = context.option("--session");
  for (;;) {
    const GameStatus game = library.status(context.subject());
    require(game.last_start.has_value(), "not_found",
            [&] { return "The game " + context.subject() + " was not started yet"; });
    const GameStartSeen& seen = *game.last_start;
    require(wanted.empty() || seen.session_id == wanted, "not_found",
            "That session is not the last one of this game");
    if (seen.ended != 0 || !game.running)
      return seen_answer(context.subject(), seen, seen.ended != 0);
    require(context.show("running", 0, 0), "cancelled",
            "The game was not watched any longer; it goes on");
    std::this_thread::sleep_for(look_period);
  }
}

Answer open_folder(Context& context) {
  const std::filesystem::path root = data_folder(context.root);
  const GamePaths paths(root, context.subject());
  const std::string& what = context.line.operands[1];
  const GameStatus game = GameLibrary(root).status(context.subject());
  std::filesystem::path folder = what == "saves" ? paths.saves : paths.state;
  if (what == "content") {
    require(game.installed, "not_installed",
            [&] { return "The game " + context.subject() + " is not installed"; });
    folder = paths.version(game.record->active->version);
  }
  require(bears_name(folder), "not_found",
          [&] { return "There is no such folder yet: " + path_utf8(folder); });
  open_directory(folder);
  return {{{"game_id", context.subject()}, {"opened", path_utf8(folder)}},
          "Opened " + path_utf8(folder)};
}

}  // namespace tavro::program
