#include "platform/host/system_calls.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>

namespace tavro {
namespace {

constexpr SystemCalls real_calls{
    .open = [](const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); },
    .openat = [](int directory, const char* name, int flags,
                 mode_t mode) { return ::openat(directory, name, flags, mode); },
    .write = ::write,
    .fsync = ::fsync,
    .rename = ::rename,
    .renameat2 = ::renameat2,
    .link = ::link,
    .unlink = ::unlink,
    .unlinkat = ::unlinkat,
    .rmdir = ::rmdir,
    .mkdir = ::mkdir,
    .mkdirat = ::mkdirat,
    .fchmod = ::fchmod,
    .fchmodat = ::fchmodat,
    .ftruncate = ::ftruncate,
    .fallocate = ::fallocate,
    .fremovexattr = ::fremovexattr,
    .flock = ::flock,
};

std::atomic<const SystemCalls*> calls_in_force{&real_calls};

}  // namespace

const SystemCalls& system_calls() noexcept {
  return *calls_in_force.load(std::memory_order_acquire);
}

SystemCallScope::SystemCallScope(const SystemCalls& calls) noexcept
    : previous_(calls_in_force.exchange(&calls)) {}

SystemCallScope::~SystemCallScope() { calls_in_force = previous_; }

}  // namespace tavro
