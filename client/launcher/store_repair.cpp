#include "launcher/store_repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "domain/crypto.h"
#include "domain/input.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr mode_t lock_mode = S_IRUSR | S_IWUSR;
/// Far more than a store ever holds.
constexpr std::size_t most_leases = 65536;

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

/// Whether it had to be made private, and is so now.
bool mend_lock(const fs::path& path) {
  const auto named = posix_files::node_at(path);
  if (!named || !S_ISREG(named->st_mode) || named->st_nlink != 1 || named->st_uid != ::geteuid() ||
      (named->st_mode & posix_files::mode_bits) == lock_mode)
    return false;
  // A file that its own user may neither read nor write stays: there is no descriptor to mend it
  // by.
  constexpr int flags = O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd file = posix_files::open(path, O_RDONLY | flags);
  if (!file) file = posix_files::open(path, O_WRONLY | flags);
  const auto held = posix_files::node_of(file.get());
  return held && posix_files::same_node(*held, *named) &&
         retried([&] { return system_calls().fchmod(file.get(), lock_mode); }) == 0;
}

/// The files of this folder that bear the name of a lease.
std::vector<fs::path> leases(const fs::path& folder, std::size_t characters) {
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = path_utf8(entry->path().filename());
    if (name.size() == characters + 5 && name.ends_with(".lock") &&
        is_lower_hex(std::string_view(name).substr(0, characters), characters))
      found.push_back(entry->path());
    if (found.size() == most_leases) break;
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace

std::string repair_command(const fs::path& root) {
  return "tavro-install repair --data-dir " + command_word(path_utf8(root));
}

Error naming(const Error& error, const fs::path& root, const fs::path& file) {
  if (says_nothing(error.code)) return error;
  std::string message = error.what();
  const std::string name = path_utf8(file);
  if (message.find(name) == message.npos) message += ": " + name;
  auto commands = error.next_commands;
  if (commands.empty()) commands.push_back(repair_command(root));
  return {error.code, message, commands};
}

std::vector<fs::path> mend_store_locks(const fs::path& root) {
  const fs::path launcher = root / "launcher";
  std::vector<fs::path> locks = {launcher / "bootstrap.lock"};
  for (const auto& [folder, characters] :
       {std::pair("versions", std::size_t{64}), std::pair("attempts", std::size_t{32})})
    for (auto& lease : leases(launcher / "leases" / folder, characters))
      locks.push_back(std::move(lease));
  std::erase_if(locks, [](const fs::path& path) { return !mend_lock(path); });
  return locks;
}

}  // namespace tavro
