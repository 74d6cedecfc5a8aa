#include "exit_status.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tavro::program {
namespace {

using Row = std::pair<std::string_view, ExitStatus>;

constexpr std::array rows{
    Row{"usage", exit_usage},
    Row{"unknown_setting", exit_usage},
    Row{"setting_value", exit_usage},
    Row{"not_installed", exit_not_found},
    Row{"game_not_published", exit_not_found},
    Row{"catalog_not_published", exit_not_found},
    Row{"key_not_published", exit_not_found},
    Row{"target_not_found", exit_not_found},
    Row{"no_previous_build", exit_not_found},
    Row{"build_not_offered", exit_not_found},
    Row{"not_staged", exit_not_found},
    Row{"not_found", exit_not_found},
    Row{"agreement_not_found", exit_not_found},
    Row{"agreement_text_missing", exit_not_found},
    Row{"crash_not_found", exit_not_found},
    Row{"crash_service_missing", exit_not_found},
    Row{"cancelled", exit_cancelled},
    Row{"busy", exit_busy},
    Row{"too_many_operations", exit_busy},
    Row{"game_running", exit_busy},
    Row{"native_install_incomplete", exit_busy},
    Row{"network", exit_network},
    Row{"transport", exit_network},
    Row{"http_status", exit_network},
    Row{"redirect_rejected", exit_network},
    Row{"discovery_timeout", exit_network},
    Row{"discovery_budget", exit_network},
    Row{"insufficient_space", exit_storage},
    Row{"game_storage_full", exit_storage},
    Row{"launcher_storage_full", exit_storage},
    Row{"permissions", exit_storage},
    Row{"file_read", exit_storage},
    Row{"file_write", exit_storage},
    Row{"file_sync", exit_storage},
    Row{"file_remove", exit_storage},
    Row{"lock_failed", exit_storage},
    Row{"output", exit_storage},
    Row{"content_mismatch", exit_not_proved},
    Row{"hash_mismatch", exit_not_proved},
    Row{"length_mismatch", exit_not_proved},
    Row{"version_mismatch", exit_not_proved},
    Row{"catalog_mismatch", exit_not_proved},
    Row{"key_mismatch", exit_not_proved},
    Row{"authentication_failed", exit_not_proved},
    Row{"signature_threshold", exit_not_proved},
    Row{"rollback", exit_not_proved},
    Row{"expired_metadata", exit_not_proved},
    Row{"invalid_metadata", exit_not_proved},
    Row{"invalid_trusted_metadata", exit_not_proved},
};

}  // namespace

ExitStatus exit_status(std::string_view code) {
  const auto* const row =
      std::find_if(rows.begin(), rows.end(), [&](const Row& each) { return each.first == code; });
  return row == rows.end() ? exit_failed : row->second;
}

}  // namespace tavro::program
