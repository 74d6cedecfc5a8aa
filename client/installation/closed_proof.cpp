#include "installation/closed_proof.h"

#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "domain/error.h"
#include "domain/product_name.h"
#include "installation/own_files.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds poll_interval{100};

/// What `take` returns, as soon as no process holds the lock that it takes.
template <typename Take>
auto when_free(Clock::time_point deadline, const Cancellation& cancellation, const Take& take) {
  for (;;) {
    try {
      return take();
    } catch (const Error& error) {
      if (error.code != "busy") throw;
    }
    require(Clock::now() < deadline, "tavro_running", [] {
      return branded("Tavro or a game from this folder is still running; close it and try again");
    });
    cancellation.check();
    std::this_thread::sleep_for(poll_interval);
  }
}

/// Nothing where no plain folder stands, or one that cannot be read: no game starts from there.
std::vector<fs::path> plain_children(const fs::path& folder) {
  std::error_code ignored;
  if (!fs::is_directory(fs::symlink_status(folder, ignored))) return {};
  try {
    return children(folder);
  } catch (const Error& error) {
    if (error.code != "file_read") throw;
    return {};
  }
}

/// The leases of all builds of games, each of which is held by whatever was started from it.
std::vector<fs::path> game_leases(const fs::path& games) {
  std::vector<fs::path> leases;
  for (const auto& game : plain_children(games))
    for (const auto& lease : plain_children(game / "leases"))
      if (lease.extension() == ".lock") leases.push_back(lease);
  return leases;
}

}  // namespace

NativeFileLock wait_for_tavro_closed(const DataPaths& paths, std::chrono::milliseconds timeout,
                                     const Cancellation& cancellation) {
  const auto deadline = Clock::now() + timeout;
  auto lock = when_free(deadline, cancellation, [&] {
    return naming(paths.bootstrap_lock, [&] {
      return NativeFileLock(paths.bootstrap_lock, true, NativeLockSharing::none,
                            LockMode::exclusive);
    });
  });
  for (const auto& lease : game_leases(paths.root / "games"))
    when_free(deadline, cancellation, [&] { require_free(lease); });
  const auto leases = paths.launcher / "leases" / "versions";
  std::error_code ignored;
  if (!fs::is_directory(leases, ignored)) return lock;
  // With the bootstrap lock held no new lease is taken, so that each has to be free only once.
  for (const auto& lease : children(leases)) {
    when_free(deadline, cancellation, [&] {
      return naming(lease, [&] { return FileLock(lease, false, LockMode::exclusive); });
    });
  }
  return lock;
}

}  // namespace tavro
