#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// What differs from one operating system to another, and nothing else does. Calls answer as the
/// system does, with `errno` set where that is said; the rules and the failures stand above.
namespace tavro::host {

/// The system's name as it stands in texts for the user.
std::string_view system_name() noexcept;

/// A sentence with the system's name in it.
inline std::string naming_system(std::string_view before, std::string_view after) {
  std::string text(before);
  return text.append(system_name()).append(after);
}

/// The identifier under which this build's platform stands in manifests.
std::string_view platform() noexcept;

/// Bytes of the longest path that a call takes, without the NUL; 0 when there is no such bound.
std::size_t longest_path() noexcept;

/// The flag with which a directory that may be passed but not read is still opened for a walk; 0
/// where there is none.
int search_only() noexcept;

/// The running image's path in at most `max_bytes` bytes; empty when it cannot be told within them.
std::string running_image(std::size_t max_bytes);

/// Brings the object's data and metadata to stable media. 0, or -1 with `errno` set; a failure is
/// final, since the system may have dropped what it could not write.
int full_sync(int descriptor) noexcept;

/// Starts to write the file's data out; promises nothing and never fails.
void begin_writeback(int descriptor) noexcept;

/// Makes storage certain for the bytes below `size` of a file whose length is `length`, all or
/// nothing, and leaves the length alone. 0 or an `errno` number: `ENOTSUP` where the file system
/// cannot reserve.
int preallocate(int descriptor, long long length, long long size) noexcept;

/// Whom the access lists of a node let in beyond what its mode bits say.
enum class AccessLists {
  nobody_else,
  unreadable,
  owner_unknown,
  beyond_bound,
  unknown_rule,
  somebody_else,
};

/// Reads every list that such a node can have, at most 128 entries of each. Changes nothing.
AccessLists inspect_access_lists(int descriptor, bool directory) noexcept;

/// Takes all lists from a node, so that the mode bits alone hold. 0, or -1 with `errno` set; a file
/// system without lists is fine.
int clear_access_lists(int descriptor, bool directory) noexcept;

/// A rename that fails with `EEXIST` when `to` exists. 0, or -1 with `errno` set; never done in two
/// steps where the file system cannot do it in one.
int rename_new(int from_directory, const char* from, int to_directory, const char* to) noexcept;

/// Exchanges two names in one step. 0, or -1 with `errno` set.
int exchange_names(int left_directory, const char* left, int right_directory,
                   const char* right) noexcept;

/// A pipe, its read end first, and a pair of connected stream sockets; close-on-exec from the start
/// where the system can do that. 0, or -1 with `errno` set.
int open_pipe(int (&ends)[2]) noexcept;
int open_socket_pair(int (&ends)[2]) noexcept;

/// Marks every descriptor from `first` on close-on-exec, also those that somebody else opened; safe
/// between fork and exec.
void close_on_exec_from(int first) noexcept;

/// Writes to a pipe; safe between fork and exec. Bytes written, or -1 with `errno` set.
long write_to_pipe(int pipe, const void* bytes, std::size_t size) noexcept;

/// Sends on a stream socket without a signal when nobody can receive: that is `EPIPE`. Bytes sent,
/// or -1 with `errno` set.
long send_without_signal(int socket, const void* bytes, std::size_t size) noexcept;

/// The program that shows the folder in its one argument to the user, looked for as a shell does.
const char* desktop_opener() noexcept;

/// Whether the TLS library has to be told where the system's trusted certificates lie.
bool needs_certificate_bundle() noexcept;

/// The file in which the system keeps them, as PEM; empty when there is none that can be read.
std::string certificate_bundle();

/// What a shortcut is on this system.
enum class ShortcutForm { desktop_entry, launch_document };
ShortcutForm shortcut_form() noexcept;

/// Makes the application at this path the one that opens launch documents. False when it cannot be,
/// as everywhere that has no such documents.
bool register_launch_handler(const std::string& application) noexcept;

}  // namespace tavro::host
