#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/error.h"
#include "installation/data_folder.h"
#include "platform/files/file_locks.h"

namespace tavro {

/// The files of an installation that keep Tavro from working when something else stands in their
/// place, or when they are no longer private: a copy without modes, or a folder put in the way.
///
/// What is found, one sentence part an entry, each with its path, such as "/data/x is not empty".
/// Looks only, takes no lock, and skips what cannot be examined.
std::vector<std::string> file_problems(const DataPaths& paths);

/// Makes locks fit to be taken: a lock file of this user becomes private again, and whatever else
/// stands in its place is set aside, unless it may be held. Answers what was done, in the same
/// form; what cannot be mended is left for the lock to refuse. Throws `busy` for a lock file with
/// content that a process holds, `file_write`, and as `sync_directory`. The caller holds the setup
/// lock.
std::vector<std::string> mend_locks(const DataPaths& paths);

/// Makes the setup lock fit in the same way, appends what was done, and takes the lock. No other
/// process that does this can come between the two, since it would set aside the lock that this one
/// has just taken. Throws as `mend_locks` and `NativeFileLock`, with a message that names the file.
NativeFileLock take_setup_lock(const DataPaths& paths, std::vector<std::string>& mended);
/// Throws `busy` when a process holds the file that stands there as its lock. Takes anything that
/// cannot be opened for no lock.
void require_free(const std::filesystem::path& path);

/// Puts a file in place of a marker that is none, in one step, so that the folder counts as
/// unfinished throughout; what stood there is set aside. The caller holds the locks. Throws
/// `file_write`, and what `atomic_private_create` throws.
std::vector<std::string> set_aside_marker(const DataPaths& paths);

/// Sets aside what is no plain file in the place of a document, and no folder in the place of one:
/// it keeps its bytes under the name that is told. The caller holds the locks, and the marker
/// stands. Throws `file_write`, and as `sync_directory`.
std::vector<std::string> set_aside_strangers(const DataPaths& paths);

/// Whether `set_aside_strangers` has anything to do.
bool has_strangers(const DataPaths& paths);

/// Moves what stands in the place of a document or a lock beside it, durably, and answers where it
/// lies now. Throws `file_write`, and as `sync_directory`.
std::filesystem::path set_aside(const std::filesystem::path& path);

/// What the names begin with under which it moves this path.
std::filesystem::path set_aside_start(const std::filesystem::path& path);

/// The same for what stands in the launcher's folder, which holds nothing but what its budgets
/// count: it goes to `native/set-aside`. Besides throws as `private_directory`.
std::filesystem::path set_aside_from_store(const std::filesystem::path& root,
                                           const std::filesystem::path& path);

/// The failure's message with the file that it is about.
std::string message_naming(const Error& error, const std::filesystem::path& path);
/// The same with what can be done about it.
std::string named_message(const Error& error, const std::filesystem::path& path);

/// Runs `work`, which opens a file of the installation, and lets its failure name the file and the
/// remedy. `busy` says who holds it and passes as it is.
template <typename Work>
auto naming(const std::filesystem::path& path, const Work& work) {
  try {
    return work();
  } catch (const Error& error) {
    if (error.code == "busy") throw;
    if (!error.next_commands.empty())
      throw Error(error.code, message_naming(error, path), error.next_commands);
    fail(error.code, named_message(error, path));
  }
}

}  // namespace tavro
