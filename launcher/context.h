#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "console/cli_grammar.h"
#include "domain/progress.h"
#include "games/game_store.h"
#include "progress_line.h"

namespace tavro {
struct HttpsBudget;
class RepositoryClient;
class TufClient;
}  // namespace tavro

namespace tavro::program {

/// What a command works with: its words, its data folder, and who watches it. Belongs to one
/// thread.
class Context {
 public:
  /// `stop` is asked at safe boundaries, and may be empty.
  Context(std::filesystem::path data_root, std::string build, bool json_wanted,
          std::function<bool()> stop);
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  ~Context();

  const std::filesystem::path root;
  /// Of the launcher itself.
  const std::string build;
  /// One line of JSON is wanted, and nothing is told meanwhile.
  const bool as_json;
  /// The words of the command, and what `read_cli_command` made of them.
  std::vector<std::string> args;
  CliLine line;
  /// The operation that this command tries again; empty for one that the user typed.
  std::string retry_of;

  /// The first operand: a game, a report, an operation, whatever the command takes.
  const std::string& subject() const { return line.operands.front(); }
  bool flag(std::string_view name) const { return line.flags.contains(name); }
  /// Empty when it was not given.
  std::string option(std::string_view name) const;

  /// Whether the user wants an end of it.
  bool stopped() const { return (stop_ && stop_()) || (watcher_stop_ && watcher_stop_()); }
  /// Throws `cancelled`.
  void require_going_on() const;

  /// Shows a long work to whoever watches, and answers whether to go on. Phases as those of
  /// `GameRequest`, or any word.
  bool show(std::string_view phase, unsigned long long done, unsigned long long total);
  GameProgress progress();
  /// The same for a work that has one phase.
  Progress progress_of(std::string phase);
  /// Another one who hears what `show` is told, and may want an end of it: false stops the work.
  /// `stop` is what it says when there is nothing to hear. Both may be empty.
  void watch(GameProgress watcher, std::function<bool()> stop);
  /// Nothing is shown from now on.
  void be_quiet() { progress_line_.reset(); }
  /// Takes the progress line away: what is written next starts on a line of its own.
  void clear_progress();
  /// Names what the progress is of, such as a game.
  void label_progress(std::string_view label);

  /// The client of the data folder's repository, made at its first use. One that lives keeps other
  /// processes from theirs. Throws as `RepositoryClient`.
  TufClient& tuf();
  /// The same with a bound; only before the first `tuf`.
  void bound_requests(std::shared_ptr<HttpsBudget> budget) { budget_ = std::move(budget); }
  void close_repository();

 private:
  std::function<bool()> stop_;
  GameProgress watcher_;
  std::function<bool()> watcher_stop_;
  std::unique_ptr<ProgressLine> progress_line_;
  std::shared_ptr<HttpsBudget> budget_;
  std::unique_ptr<RepositoryClient> repository_;
};

}  // namespace tavro::program
