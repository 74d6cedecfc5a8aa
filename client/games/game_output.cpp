#include "games/game_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "games/game_history.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"
#include "platform/process/channel.h"

namespace tavro {
namespace {

constexpr off_t most_bytes = 1048576;

std::string last_part(std::string text) {
  if (text.size() > kGameOutputBytes) text.erase(0, text.size() - kGameOutputBytes);
  return text;
}

}  // namespace

GameOutput::GameOutput(std::filesystem::path path)
    : path_(std::move(path)),
      file_(posix_files::open(path_, O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC,
                              0600)) {
  require(file_ && leave_standard_streams(file_) && close_on_exec(file_), "file_write",
          [&] { return "Cannot create the output file of the game: " + path_utf8(path_); });
}

void GameOutput::trim() {
  const auto node = posix_files::node_of(file_.get());
  if (!node || node->st_size <= most_bytes) return;
  before_ = last_part(before_ + end_of_file());
  retried([&] { return system_calls().ftruncate(file_.get(), 0); });
}

std::string GameOutput::end() const { return last_part(before_ + end_of_file()); }

void GameOutput::shorten_to(const std::string& end) {
  file_.reset();
  try {
    replace_private_file(path_, end);
  } catch (const Error&) {
    // The report of how the game ended does not wait for it.
  }
}

/// The file may grow meanwhile, and what cannot be read is not worth the report of how a game
/// ended.
std::string GameOutput::end_of_file() const {
  const auto node = posix_files::node_of(file_.get());
  if (!node) return {};
  constexpr auto most = static_cast<off_t>(kGameOutputBytes);
  const off_t start = node->st_size > most ? node->st_size - most : 0;
  std::string text(kGameOutputBytes, '\0');
  const ssize_t count =
      retried([&] { return ::pread(file_.get(), text.data(), text.size(), start); });
  text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return text;
}

}  // namespace tavro
