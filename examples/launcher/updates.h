#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "domain/json.h"

/// How a launcher keeps itself new. A front end calls these from a thread of its own: they take as
/// long as the network and the disk do.
namespace example {

using Stop = std::function<bool()>;

/// Brings the newest launcher and bootstrap in, to be tried at the next start. Progress is told on
/// standard error. The answer has `launcher` (as `LauncherStore::stage` gives it) and `bootstrap`
/// (`staged`, `status`, `build_id`).
tavro::json update(const std::filesystem::path& root, const Stop& stop);
std::string update_sentence(const tavro::json& result);

/// A look in passing, bounded in time and bytes, for the moment after a start. What it finds or
/// what stops it is one sentence; empty when there is nothing to tell.
std::string check_for_update(const std::filesystem::path& root);

/// Takes away what updates left behind.
tavro::json clean_up(const std::filesystem::path& root, const Stop& stop);
std::string cleanup_sentence(const tavro::json& report);

}  // namespace example
