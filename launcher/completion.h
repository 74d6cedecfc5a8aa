#pragma once

#include <string>
#include <string_view>

namespace tavro::program {

/// A script with which a shell completes the commands of `tavro` and their options, made from the
/// grammar. `shell` is "bash", "zsh" or "fish"; else `usage`.
std::string completion_script(std::string_view shell);

}  // namespace tavro::program
