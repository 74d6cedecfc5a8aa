#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "installation/setup_callbacks.h"

namespace tavro {

struct Brand;
struct SetupCommand;

/// Runs one setup command from the console. `arguments` come without the program's own name, `seal`
/// is the digest of the initial package that this program was built for. Writes the result to
/// standard output, progress and problems to standard error. Returns the exit status; no standard
/// exception escapes.
int run_setup_console(const std::vector<std::string>& arguments, std::string_view program,
                      std::string_view seal, const std::function<bool()>& cancelled);

/// What a front end does before it runs a command: finds the package beside it, takes the brand
/// into every sentence of this process, and sends a new install to the brand's folder unless the
/// user chose one. Throws what `package_brand` throws, and `user_path`.
void select_brand_and_folder(SetupCommand& command, std::string_view seal);

/// The console's view of a run: one line on standard error for each new phase, none with `as_json`.
NativeSetupCallbacks console_callbacks(bool as_json, std::function<bool()> cancelled);

/// The initial package inside the application folder of a windowed installer, or an empty path when
/// `executable` does not lie in one. Pure path logic.
std::filesystem::path macos_installer_package(const std::filesystem::path& executable);

/// The same, but only if that folder exists. Throws nothing.
std::filesystem::path adjacent_initial_package(const std::filesystem::path& executable);

/// Where an install goes unless the user says otherwise: the user's data folder, or beside it a
/// folder that bears the brand's name. Throws `user_path`.
std::filesystem::path default_install_folder(const std::optional<Brand>& brand);

}  // namespace tavro
