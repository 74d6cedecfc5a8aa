#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// The block of every streaming read and write, in bytes.
inline constexpr std::size_t kStreamBlock = 65536;

/// The whole content of an ordinary file of at most `max_bytes` bytes; a final link is not followed
/// and a special file does not block. Throws `unsafe_path` (a link, or no ordinary file),
/// `size_limit` before anything is read, or `file_read`, also when the file changes meanwhile.
std::string read_file(const std::filesystem::path& path, unsigned long long max_bytes);

/// The last `max_bytes` bytes of the file, or all of it when it is shorter; `*size` becomes the
/// size of the whole file. Otherwise as `read_file`.
std::string read_file_tail(const std::filesystem::path& path, unsigned long long max_bytes,
                           unsigned long long* size);

/// One `read` with interruptions retried: bytes read, 0 at the end, -1 with `errno` set.
ssize_t read_some(int descriptor, void* buffer, std::size_t size);

/// The path's native bytes, unchanged.
std::string path_utf8(const std::filesystem::path& path);

/// Throws `unsafe_path` for a text that holds a NUL byte.
std::filesystem::path path_from_utf8(std::string_view text);

/// The length of the text's path form in native units, bytes here. Throws as `path_from_utf8`.
std::size_t native_length(std::string_view text);

/// Copies a NUL-terminated text of at most `max_bytes` bytes; never looks further than one byte
/// beyond. Throws `code` for a null pointer and for a longer text.
std::string bounded_bytes(const char* text, std::size_t max_bytes, std::string_view code);

/// The arguments without the program's own name: at most 256, of 131072 bytes together. Throws
/// `argument_encoding` when there is not even a name, else `argument_limit`.
std::vector<std::string> process_arguments(int argc, char** argv);

/// The variable's value, empty when it is not set. `key` is 1 to 128 ASCII letters, digits and
/// underscores, `max_bytes` is 1 to 131072. Throws `environment_key` or `environment_limit`.
std::string process_environment(std::string_view key, std::size_t max_bytes);

}  // namespace tavro
