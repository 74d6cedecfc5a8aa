#include "domain/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "domain/error.h"
#include "domain/unique_fd.h"

namespace tavro {
namespace {

constexpr std::size_t kMaxNativeText = 131072;
constexpr int kMaxArguments = 256;
constexpr std::size_t kMaxEnvironmentKey = 128;

struct OpenInput {
  UniqueFd file;
  unsigned long long size = 0;
};

OpenInput open_ordinary(const std::filesystem::path& path) {
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  const int problem = errno;
  UniqueFd file(descriptor);
  require(static_cast<bool>(file), problem == ELOOP ? "unsafe_path" : "file_read",
          [&] { return "Cannot open file: " + path_utf8(path); });
  struct stat status {};
  require(::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0,
          "unsafe_path", [&] { return "Expected an ordinary file: " + path_utf8(path); });
  return {std::move(file), static_cast<unsigned long long>(status.st_size)};
}

void fill(int file, std::string& content) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t count =
        read_some(file, content.data() + done, std::min(kStreamBlock, content.size() - done));
    require(count >= 0, "file_read", "Cannot read file");
    require(count > 0, "file_read", "File changed while reading");
    done += static_cast<std::size_t>(count);
  }
}

void require_end(int file) {
  char beyond = 0;
  const ssize_t count = read_some(file, &beyond, 1);
  require(count >= 0, "file_read", "Cannot finish reading file");
  require(count == 0, "file_read", "File changed while reading");
}

// With `whole_size` only the tail that fits is read; without it the whole file must fit.
std::string read_bounded(const std::filesystem::path& path, unsigned long long max_bytes,
                         unsigned long long* whole_size) {
  const OpenInput input = open_ordinary(path);
  unsigned long long offset = 0;
  if (whole_size != nullptr) {
    *whole_size = input.size;
    if (input.size > max_bytes) {
      offset = input.size - max_bytes;
      const auto target = static_cast<off_t>(offset);
      require(::lseek(input.file.get(), target, SEEK_SET) == target, "file_read",
              "Cannot read file");
    }
  }
  require(input.size - offset <= max_bytes, "size_limit", "File exceeds read limit");
  std::string content(input.size - offset, '\0');
  fill(input.file.get(), content);
  require_end(input.file.get());
  return content;
}

bool is_environment_key(std::string_view key) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
  return !key.empty() && key.size() <= kMaxEnvironmentKey &&
         key.find_first_not_of(kAllowed) == std::string_view::npos;
}

}  // namespace

std::string read_file(const std::filesystem::path& path, unsigned long long max_bytes) {
  return read_bounded(path, max_bytes, nullptr);
}

std::string read_file_tail(const std::filesystem::path& path, unsigned long long max_bytes,
                           unsigned long long* size) {
  unsigned long long unwanted = 0;
  return read_bounded(path, max_bytes, size != nullptr ? size : &unwanted);
}

ssize_t read_some(int descriptor, void* buffer, std::size_t size) {
  ssize_t count = -1;
  do {
    count = ::read(descriptor, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

std::string path_utf8(const std::filesystem::path& path) { return path.native(); }

std::filesystem::path path_from_utf8(std::string_view text) {
  require(text.find('\0') == std::string_view::npos, "unsafe_path",
          "Native path contains a NUL byte");
  return std::filesystem::path(text);
}

std::size_t native_length(std::string_view text) { return path_from_utf8(text).native().size(); }

std::string bounded_bytes(const char* text, std::size_t max_bytes, std::string_view code) {
  require(text != nullptr, code, "Native process text is missing");
  const std::size_t length = ::strnlen(text, max_bytes + 1);
  require(length <= max_bytes, code, "Native process text exceeds its byte bound");
  return std::string(text, length);
}

std::vector<std::string> process_arguments(int argc, char** argv) {
  require(argc > 0 && argv != nullptr, "argument_encoding", "Native command arguments are missing");
  require(argc <= kMaxArguments + 1, "argument_limit", "Too many native command arguments");
  std::vector<std::string> arguments;
  std::size_t room = kMaxNativeText;
  for (int index = 1; index < argc; ++index) {
    arguments.push_back(bounded_bytes(argv[index], room, "argument_limit"));
    room -= arguments.back().size();
  }
  return arguments;
}

std::string process_environment(std::string_view key, std::size_t max_bytes) {
  require(is_environment_key(key), "environment_key", "Native environment key is invalid");
  require(max_bytes >= 1 && max_bytes <= kMaxNativeText, "environment_limit",
          "Native environment bound is invalid");
  const char* value = std::getenv(std::string(key).c_str());
  return value == nullptr ? std::string() : bounded_bytes(value, max_bytes, "environment_limit");
}

}  // namespace tavro
