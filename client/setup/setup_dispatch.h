#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "installation/setup_callbacks.h"
#include "setup/setup_command.h"

namespace tavro {

/// Runs one command through the installer engine and returns its document, the same for every front
/// end. `seal` is the digest that the installer was built with. Throws what the engine throws, and
/// `usage` for an install or repair without a package.
json run_setup_command(const SetupCommand& command, std::string_view seal,
                       const NativeSetupCallbacks& callbacks);

/// What the sentence leaves out, a line each: what was mended, what is damaged, what stayed.
std::vector<std::string> setup_details(const json& result);

/// The sentence for the console that tells the document of `run_setup_command`.
std::string setup_summary(const SetupCommand& command, const json& result);

}  // namespace tavro
