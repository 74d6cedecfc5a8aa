#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "domain/error.h"

namespace tavro {

/// The command that mends the installation in this data folder, as a user types it.
std::string repair_command(const std::filesystem::path& root);

/// The failure of something done to a file of the store below `root`, with the same code. Its
/// message ends in the file, unless it names it already; its next command is a repair, unless it
/// has one. What only says that somebody is at work, or that the disk is full, stays as it is.
Error naming(const Error& error, const std::filesystem::path& root,
             const std::filesystem::path& file);

/// What `step` answers; its failures are those of `naming`.
template <typename Step>
auto named(const std::filesystem::path& root, const std::filesystem::path& file, Step&& step) {
  try {
    return std::forward<Step>(step)();
  } catch (const Error& error) {
    throw naming(error, root, file);
  }
}

/// Makes the store's own lock files usable again whose mode a copy or a tool changed: `launcher/
/// bootstrap.lock` and the leases of versions and attempts. Only ordinary files of this user with
/// one name are touched, and only their mode; whatever else bears such a name stays. Returns the
/// paths mended. Best effort: what cannot be mended fails where it is used.
std::vector<std::filesystem::path> mend_store_locks(const std::filesystem::path& root);

}  // namespace tavro
