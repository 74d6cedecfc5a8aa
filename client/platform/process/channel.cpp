#include "platform/process/channel.h"

#include <fcntl.h>

#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

constexpr int first_free = STDERR_FILENO + 1;

template <typename Open>
Channel opened(Open&& open) noexcept {
  int ends[2] = {-1, -1};
  if (open(ends) != 0) return {};
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

}  // namespace

Channel open_pipe() noexcept { return opened(host::open_pipe); }

Channel open_socket_pair() noexcept { return opened(host::open_socket_pair); }

bool leave_standard_streams(UniqueFd& descriptor) noexcept {
  if (descriptor.get() >= first_free) return true;
  const int moved = retried([&] { return ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, first_free); });
  if (moved < 0) return false;
  descriptor.reset(moved);
  return true;
}

bool close_on_exec(const UniqueFd& descriptor) noexcept {
  const int flags = retried([&] { return ::fcntl(descriptor.get(), F_GETFD); });
  return flags >= 0 &&
         retried([&] { return ::fcntl(descriptor.get(), F_SETFD, flags | FD_CLOEXEC); }) == 0;
}

}  // namespace tavro
