#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tavro {

/// The command line of tavro-publish. `arguments` come without the program's own name. One
/// sentence, or with --json one compact JSON line, goes to standard output; failures and progress
/// go to standard error. Returns the exit status: 0, 2 for `usage`, 4 for `cancelled`, 1 for every
/// other failure; lets no standard exception escape. `cancelled` is polled at safe boundaries.
int run_publish(const std::vector<std::string>& arguments, const std::function<bool()>& cancelled);

}  // namespace tavro
