#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include "platform/files/file_locks.h"

namespace example {

/// Proves that this process is the helper of `role` of the client in the data folder: a helper
/// started by hand removes nothing else. What is returned keeps the version from being retired, and
/// the client from being removed: the helper lets go of it right before that.
std::unique_ptr<tavro::FileLock> require_own_client(std::string_view role,
                                                    const std::filesystem::path& data_dir);

}  // namespace example
