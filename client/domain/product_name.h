#pragma once

#include <string>
#include <string_view>

namespace tavro {

/// The name under which the product speaks to its user: "Tavro" until a brand sets another one.
const std::string& product_name();

/// Set once at the start of a command, before any other thread exists. There is no lock.
void set_product_name(std::string name);

/// The text with the product name in place of each whole word "Tavro". It is meant for the fixed
/// words of a sentence: join paths and other foreign text to the result, not to the argument.
std::string branded(std::string_view text);

}  // namespace tavro
