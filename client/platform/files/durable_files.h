#pragma once

#include <filesystem>
#include <string_view>

namespace tavro {

/// See `posix_files::private_directory`.
void private_directory(const std::filesystem::path& path);

/// Brings an ordinary single-link file to stable media, and proves that the path still names it
/// afterwards. At most 4096 bytes of path, no final link. Throws `file_sync`.
void sync_file(const std::filesystem::path& path);

/// Makes the names in a directory durable. Throws `file_sync`.
void sync_directory(const std::filesystem::path& path);

/// The transactional writers. The destination holds its old content (or nothing) or all of `bytes`,
/// never a part, and is never written through a link; a failure leaves no temporary file. The
/// parent of a private document becomes a private directory, that of a plain one must exist.
///
/// They throw `unsafe_path`, `file_write`, `insufficient_space`, and what `private_directory`
/// throws. `file_sync` at the very end means that the new content is in place while its durability
/// is unknown: read the state again.
///
/// Replaces a private state document.
void atomic_write(const std::filesystem::path& path, std::string_view bytes);
/// Creates a private document; `file_write` if something stands there.
void atomic_private_create(const std::filesystem::path& path, std::string_view bytes);
/// Creates a plain document (an export) in an existing directory that need not be private;
/// `file_write` if something stands there.
void atomic_create(const std::filesystem::path& path, std::string_view bytes);
/// Replaces a private document whose loss in a crash is accepted: nothing is synced.
void replace_private_file(const std::filesystem::path& path, std::string_view bytes);

/// Throws the failure of a step that writes: `insufficient_space` when storage or quota is used up,
/// otherwise `file_write` with the message and the `errno` number.
[[noreturn]] void transaction_failure(unsigned long error, std::string_view message);

}  // namespace tavro
