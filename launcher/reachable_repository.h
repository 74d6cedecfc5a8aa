#pragma once

#include "context.h"

namespace tavro::program {

/// The client of the repository, or null where it cannot be had: while another program has it, or
/// with a damaged record. For commands that have something to say without it too.
TufClient* reachable_repository(Context& context);

}  // namespace tavro::program
