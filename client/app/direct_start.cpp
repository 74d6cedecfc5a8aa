#include "app/direct_start.h"

#include "domain/error.h"
#include "domain/identifier.h"

namespace tavro {

void start_installed_game(const std::filesystem::path&, std::string_view game_id, bool) {
  validate_identifier(game_id);
  fail("process_start", "The game could not be started without a launcher");
}

}  // namespace tavro
