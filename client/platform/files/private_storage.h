#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

#include "domain/unique_fd.h"

/// Work on open descriptors, and the definition of private storage: owned by the effective user; a
/// directory of mode 0700 exactly, or a regular file with one link and no group, other, setuid,
/// setgid or sticky bit; and no access list that lets anybody else in.
namespace tavro::posix_files {

/// The permission bits of a mode, with setuid, setgid and sticky.
inline constexpr mode_t mode_bits = 07777;

/// Components of the longest ancestry that is walked.
inline constexpr int max_ancestry = 128;

/// `open` through the table in force, interruptions retried; empty with `errno` set on failure.
UniqueFd open(const std::filesystem::path& path, int flags, mode_t mode = 0);

/// What a descriptor, or a path whose final link is not followed, shows; empty on failure.
std::optional<struct stat> node_of(int descriptor);
std::optional<struct stat> node_at(const std::filesystem::path& path);

/// What a message about a failed call ends with: the path, the system's words and number for the
/// error, and what the user can do about it. Empty for what the message says already: that nothing
/// ordinary stands there.
std::string failed_because(const std::filesystem::path& path, int error);
/// The same for a message that names the path itself, whatever the error.
std::string because(int error);

/// Full durable sync of data and metadata, interruptions retried. 0, or negative with `errno` set;
/// a failure is final.
int sync(int descriptor);

/// Makes `size` bytes of storage certain for an open file, all or nothing, and sets its length to
/// exactly `size`. A size of 0 leaves the file alone. Returns 0 or an `errno` number, never throws:
/// `ENOSPC`, `EDQUOT`, `ENOTSUP` (the file system cannot reserve), `EFBIG`, `EINVAL` (no regular
/// file), `EOVERFLOW`. After a failure the length is as it was.
int reserve(int descriptor, unsigned long long size);

/// Makes a node that this process has just created private: takes its access lists away and sets
/// mode 0700 or 0600. Anything but an own, new node throws `permissions` and stays as it is.
void secure_new_private(int descriptor, bool directory);

/// Throws `permissions` unless the node is private, with the path in the message if there is one.
/// Changes nothing.
void private_node(int descriptor, bool directory, const std::filesystem::path& path = {});

/// The access list's part of the definition alone. Throws `permissions`; the list is preserved. A
/// caller that knows its node for a file saves a call.
void require_private_acl(int descriptor, bool directory = true,
                         const std::filesystem::path& path = {});

/// Proves the object that an absolute path of at most 4096 bytes names. A final link is not
/// followed. Throws `unsafe_path` for the path's form, else `permissions`.
void require_private_path(const std::filesystem::path& path, bool directory);

/// Creates the directory and its missing ancestors, each private and synced into its parent before
/// the next, or proves an existing directory private; the user's own one is narrowed to 0700 if no
/// access list lets anybody else in. Existing ancestors are only required to be plain directories.
/// Links of the operating system are resolved, all others refused. Repeating it changes nothing.
/// Nothing is created in a directory that cannot be read, since its names could not be synced.
///
/// At most 4096 bytes and 128 components, none of them "..". Throws `unsafe_path`, `size_limit`,
/// `permissions` or `file_sync`; ancestors created so far stay.
void private_directory(const std::filesystem::path& path);

/// Whether both results show one object: the same device, inode and file type.
bool same_node(const struct stat& left, const struct stat& right);

/// Whether the text is 1 to 4096 bytes with no NUL byte: the bound of every path of this floor.
bool bounded_path(const std::filesystem::path& path);

}  // namespace tavro::posix_files
