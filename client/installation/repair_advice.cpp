#include "installation/repair_advice.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "domain/document_sentence.h"
#include "domain/input.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// What stands in a message between what went wrong and what to do.
constexpr std::string_view then = "; ";

/// A word of a command line, in single quotes where the shell would read more into it.
std::string command_word(const std::string& word) {
  constexpr std::string_view plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%=";
  if (!word.empty() && word.find_first_not_of(plain) == word.npos) return word;
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

/// Codes that say nothing against the file.
bool says_nothing(std::string_view code) {
  constexpr std::array<std::string_view, 3> codes = {"busy", "cancelled", "insufficient_space"};
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

bool names_something(std::string_view message, const fs::path& root) {
  return message.find(path_utf8(root) + '/') != message.npos;
}

/// Whether this user may not read it, which no repair changes when it is another user's.
bool is_closed(const fs::path& object) {
  return ::access(object.c_str(), R_OK) != 0 && errno == EACCES;
}

/// What can only be done by hand; empty when the message tells already, or a repair may help.
std::string_view by_hand(std::string_view code, std::string_view message, const fs::path& object) {
  if (message.find(then) != message.npos) return {};
  if (code == "permissions" || (code == "file_read" && is_closed(object)))
    return "; give it to this user alone and try again";
  if (code == "lock_failed") return "; remove it while nothing runs from the folder";
  return {};
}

}  // namespace

std::string repair_command(const fs::path& root) {
  return "tavro-install repair --data-dir " + command_word(path_utf8(root));
}

Error advised(const Error& error, const fs::path& root, const fs::path& object) {
  if (says_nothing(error.code)) return error;
  std::string message = document_sentence(error);
  if (!names_something(message, root)) message += ": " + path_utf8(object);
  message += by_hand(error.code, message, object);
  auto commands = error.next_commands;
  // A lock that is not this user's is the one thing that either can help with.
  const bool mendable = message.find(then) == message.npos || error.code == "lock_failed";
  if (commands.empty() && mendable) commands.push_back(repair_command(root));
  return {error.code, message, commands};
}

Error advised(const Error& error, const fs::path& root) {
  const std::string_view message = error.what();
  const auto name = message.find(path_utf8(root) + '/');
  if (name == message.npos) return error;
  // As a rule the name is the end of the message.
  return advised(error, root, path_from_utf8(message.substr(name)));
}

}  // namespace tavro
