#pragma once

#include <functional>

namespace tavro {

/// Called with bytes done and bytes in total; false stops the work at a safe boundary with
/// `cancelled`. May be empty.
using Progress = std::function<bool(unsigned long long done, unsigned long long total)>;

}  // namespace tavro
