#pragma once

#include "answer.h"
#include "context.h"

/// What the commands do, by theme. Each throws `Error`, and has told nothing but its progress.
namespace tavro::program {

// game_commands.cpp: what there is, and what is known of it.
Answer list_games(Context& context);
Answer list_available(Context& context);
Answer game_status(Context& context);
Answer manage_game(Context& context);
Answer game_locations(Context& context);

// change_commands.cpp: what changes a game.
Answer install_game(Context& context);
Answer verify_game(Context& context);
Answer repair_game_files(Context& context);
Answer roll_back_game(Context& context);
Answer uninstall_game(Context& context);
Answer set_channel(Context& context);

// update_commands.cpp: newer builds.
Answer update_game(Context& context);
Answer preload_game(Context& context);
Answer list_preloads(Context& context);
Answer discard_preload(Context& context);
Answer check_updates(Context& context);
Answer show_update(Context& context);
Answer defer_update(Context& context);

// play_commands.cpp: starting and watching.
Answer launch_game(Context& context);
Answer observe_game(Context& context);
Answer open_folder(Context& context);

// operation_commands.cpp: the journal.
Answer list_operations(Context& context);
Answer show_operation(Context& context);
Answer wait_for_operation(Context& context);
Answer cancel_operation(Context& context);
Answer retry_operation(Context& context);

// repository_commands.cpp
Answer configure_repository(Context& context);

// settings_commands.cpp
Answer get_settings(Context& context);
Answer set_setting(Context& context);

// distributor_commands.cpp: what the distributor tells, and what the player answers.
Answer list_notices(Context& context);
Answer service_status(Context& context);
Answer list_agreements(Context& context);
Answer show_agreement(Context& context);
Answer agree_to(Context& context);
Answer withdraw_agreement(Context& context);
Answer unlock_channel(Context& context);

// crash_commands.cpp: reports of games that ended badly.
Answer list_crashes(Context& context);
Answer show_crash(Context& context);
Answer send_crash(Context& context);
Answer discard_crash(Context& context);
Answer restore_crash(Context& context);
Answer delete_crash(Context& context);
Answer clean_crashes(Context& context);

// client_commands.cpp: the client itself.
Answer self_status(Context& context);
Answer self_update(Context& context);
Answer self_cleanup(Context& context);

}  // namespace tavro::program
