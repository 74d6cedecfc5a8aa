// What changes a game that is installed, or installs it.

#include "domain/error.h"
#include "exit_status.h"
#include "game_report.h"
#include "game_work.h"
#include "games/game_library.h"
#include "handlers.h"
#include "operation_run.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

Answer differences_answer(const Context& context, const GameDifferences& found) {
  const json document = {{"game_id", context.subject()},
                         {"sound", found.is_sound()},
                         {"damaged", found.damaged},
                         {"missing", found.missing},
                         {"foreign", found.foreign},
                         {"damaged_count", found.damaged_count},
                         {"missing_count", found.missing_count},
                         {"foreign_count", found.foreign_count}};
  std::vector<std::string> lines;
  const auto tell = [&](const char* what, const std::vector<std::string>& paths,
                        unsigned long long count) {
    for (const std::string& path : paths) lines.push_back(std::string(what) + ": " + path);
    if (count > paths.size())
      lines.push_back(std::string(what) + ": " + std::to_string(count - paths.size()) + " more");
  };
  tell("Damaged", found.damaged, found.damaged_count);
  tell("Missing", found.missing, found.missing_count);
  tell("Not of the game", found.foreign, found.foreign_count);
  lines.push_back(found.is_sound() ? "Every file of the game is as it should be."
                                   : "Mend the game with: tavro repair " + context.subject());
  return {document, line_text(lines), found.is_sound() ? exit_done : exit_not_proved};
}

}  // namespace

Answer install_game(Context& context) {
  Answer answer = as_operation(context, [&] {
    const GameLibrary library(context.root);
    const bool installed = library.status(context.subject()).installed;
    const GameChange change =
        library.install(context.subject(), context.tuf(), {.progress = context.progress()});
    return change_answer(context, library, change, installed ? "updated" : "installed");
  });
  context.close_repository();
  return context.flag("--launch") ? launch_after(context, std::move(answer)) : answer;
}

Answer verify_game(Context& context) {
  return as_operation(context, [&] {
    return differences_answer(
        context, GameLibrary(context.root).verify(context.subject(), context.progress()));
  });
}

Answer repair_game_files(Context& context) {
  return as_operation(context, [&] {
    const GameRepair repair =
        GameLibrary(context.root).repair(context.subject(), context.tuf(), context.progress());
    std::vector<std::string> lines = {
        repair.replaced == 0 ? "Every file of the game was as it should be."
                             : "Replaced " + count_text(repair.replaced, "file") + "."};
    for (const std::string& path : repair.set_aside)
      lines.push_back("Set aside what stood in the way of a file: " + path);
    return Answer{{{"game_id", context.subject()},
                   {"replaced", repair.replaced},
                   {"set_aside", repair.set_aside}},
                  line_text(lines)};
  });
}

Answer roll_back_game(Context& context) {
  return as_operation(context, [&] {
    const GameLibrary library(context.root);
    const GameChange change = library.roll_back(context.subject(), context.progress());
    return Answer{change_document(context.subject(), change),
                  "Build " + change.build_id +
                      " is in use again; the one before it is put off until another one comes."};
  });
}

Answer uninstall_game(Context& context) {
  return as_operation(context, [&] {
    const bool saves = context.flag("--remove-saves");
    const GameRemoval removal =
        GameLibrary(context.root)
            .remove(context.subject(), saves ? PlayerData::removed : PlayerData::kept);
    std::vector<std::string> lines = {"The game " + context.subject() + " is removed; its saves " +
                                      (saves ? "are gone, too." : "are kept.")};
    for (const std::string& path : removal.kept)
      lines.push_back("Kept, since it holds files that the game did not bring: " + path);
    return Answer{
        {{"game_id", context.subject()}, {"saves_removed", saves}, {"kept", removal.kept}},
        line_text(lines)};
  });
}

Answer set_channel(Context& context) {
  const std::string& channel = context.line.operands[1];
  GameLibrary(context.root).set_channel(context.subject(), channel);
  return {{{"game_id", context.subject()}, {"channel", channel}},
          "The game " + context.subject() + " follows the channel " + channel +
              " from now on; its next update brings that channel's build."};
}

}  // namespace tavro::program
