#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "domain/error.h"

namespace tavro {

/// The command that mends the installation in this data folder, as a user types it.
std::string repair_command(const std::filesystem::path& root);

/// The failure of something done to `object`, a file or folder below the data folder `root`, with
/// the same code. Its message has no words of the JSON parser and ends in the object, unless it
/// names something of the folder already. It says what to do: what belongs to another user is to be
/// given back, a lock that is none can be removed, and for all that no hand is needed for, a repair
/// is the next command, unless there is one. What only says that somebody is at work, that the disk
/// is full or that the user wants no more, stays as it is.
Error advised(const Error& error, const std::filesystem::path& root,
              const std::filesystem::path& object);

/// What `step` answers; its failures are those of `advised`.
template <typename Step>
auto advising(const std::filesystem::path& root, const std::filesystem::path& object, Step&& step) {
  try {
    return std::forward<Step>(step)();
  } catch (const Error& error) {
    throw advised(error, root, object);
  }
}

/// The same for work on many files and on the network: only a failure that names something of the
/// folder gets advice.
Error advised(const Error& error, const std::filesystem::path& root);

template <typename Step>
auto advising(const std::filesystem::path& root, Step&& step) {
  try {
    return std::forward<Step>(step)();
  } catch (const Error& error) {
    throw advised(error, root);
  }
}

}  // namespace tavro
