#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace tavro {

/// The command line of tavro-publish. `arguments` come without the program's own name. One
/// sentence, or with --json one compact JSON line, goes to `out`; failures and progress go to
/// `err`. Returns the exit status: 0, 2 for `usage`, 4 for `cancelled`, 1 for every other failure;
/// lets no standard exception escape. `cancelled` is polled at safe boundaries.
int run_publish(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err,
                const std::function<bool()>& cancelled);

}  // namespace tavro
