#pragma once

#include "domain/unique_fd.h"

namespace tavro {

/// Two connected descriptors, both owned. Of a pipe the first reads and the second writes.
struct Channel {
  UniqueFd first;
  UniqueFd second;
};

/// A pipe and a pair of stream sockets; empty with `errno` set on failure. The ends must still be
/// protected, since not every system can make them close-on-exec from the start.
Channel open_pipe() noexcept;
Channel open_socket_pair() noexcept;

/// Gives the descriptor a number above those of the standard streams, which a child gets replaced:
/// a process that was itself started without one finds its channels there. False with `errno` set.
bool leave_standard_streams(UniqueFd& descriptor) noexcept;

/// Makes the descriptor close-on-exec. False with `errno` set.
bool close_on_exec(const UniqueFd& descriptor) noexcept;

}  // namespace tavro
