#pragma once

#include <string>

namespace tavro {

/// Tells the user on standard error, as the bootstrap's own words, what becomes of an update.
/// Raises nothing: who cannot be told still gets a bootstrap.
void tell_about_update(const std::string& sentence) noexcept;

}  // namespace tavro
