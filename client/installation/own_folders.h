#pragma once

#include <string>
#include <vector>

#include "installation/data_folder.h"

namespace tavro {

/// What becomes of another user's folder that this one can list.
enum class OthersFolders { refused, passed };

/// Gives this user back the right to list, enter and change the folders of an installation, as it
/// made them: those of the client, its launchers and its trust, to any depth. Links are not
/// followed, and player data is not looked at, nor, where other users' folders are refused, what a
/// repair has set aside. Answers what was done, one sentence part a folder. The caller holds the
/// setup lock.
///
/// Throws `permissions` for another user's folder, unless it is passed, `file_read` for one
/// that cannot be listed for another reason, `file_write`, and `size_limit` beyond 250000 entries.
std::vector<std::string> open_own_folders(const DataPaths& paths, OthersFolders others);

}  // namespace tavro
