#include "command_table.h"

#include <algorithm>

#include "domain/error.h"
#include "handlers.h"

namespace tavro::program {

namespace {

const Command& command_of(const CliLine& line) {
  const auto& table = command_table();
  const auto command = std::find_if(table.begin(), table.end(), [&](const Command& each) {
    return each.words == line.command->words;
  });
  require(command != table.end(), "usage", "Unknown command; run tavro --help");
  return *command;
}

}  // namespace

const std::vector<Command>& command_table() {
  static const std::vector<Command> table = {
      {{"list"}, list_games},
      {{"available"}, list_available},
      {{"notices"}, list_notices},
      {{"preload"}, preload_game, true},
      {{"preloads", "discard"}, discard_preload},
      {{"preloads"}, list_preloads},
      {{"status"}, game_status},
      {{"manage"}, manage_game},
      {{"locations"}, game_locations},
      {{"self", "status"}, self_status},
      {{"self", "update"}, self_update, true},
      {{"self", "cleanup"}, self_cleanup, true},
      {{"service", "status"}, service_status},
      {{"crashes", "list"}, list_crashes},
      {{"crashes", "cleanup"}, clean_crashes},
      {{"agreements", "show"}, show_agreement},
      {{"agreements", "agree"}, agree_to},
      {{"agreements", "withdraw"}, withdraw_agreement},
      {{"agreements"}, list_agreements},
      {{"crashes", "show"}, show_crash},
      {{"crashes", "discard"}, discard_crash},
      {{"crashes", "restore"}, restore_crash},
      {{"crashes", "delete"}, delete_crash},
      {{"crashes", "send"}, send_crash},
      {{"settings", "get"}, get_settings},
      {{"settings", "set"}, set_setting},
      {{"operations", "list"}, list_operations},
      {{"operations", "show"}, show_operation},
      {{"operations", "wait"}, wait_for_operation},
      {{"operations", "cancel"}, cancel_operation},
      {{"operations", "retry"}, retry_operation},
      {{"repository", "configure"}, configure_repository},
      {{"updates", "check"}, check_updates},
      {{"updates", "show"}, show_update},
      {{"updates", "defer"}, defer_update},
      {{"install"}, install_game, true},
      {{"update"}, update_game, true},
      {{"repair"}, repair_game_files, true},
      {{"verify"}, verify_game, true},
      {{"rollback"}, roll_back_game, true},
      {{"launch"}, launch_game},
      {{"observe"}, observe_game},
      {{"uninstall"}, uninstall_game, true},
      {{"channel", "set"}, set_channel},
      {{"channel", "unlock"}, unlock_channel},
      {{"open"}, open_folder},
  };
  return table;
}

bool is_journaled(const std::vector<std::string>& args) {
  try {
    return command_of(read_cli_command(args)).journaled;
  } catch (const Error&) {
    return false;
  }
}

Answer run_command(Context& context, const std::vector<std::string>& args) {
  context.line = read_cli_command(args);
  context.args = args;
  return command_of(context.line).handler(context);
}

}  // namespace tavro::program
