#include "console/cli_grammar.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json.h"

namespace tavro {
namespace {

using Words = std::vector<std::string>;
using WordSet = std::set<std::string, std::less<>>;

constexpr std::size_t kMaxSettingBytes = 16384;

// Searched from the top: a row whose first words are another's whole name stands before it.
const std::vector<CliCommand> grammar = {
    {{"list"}, 0, {}, {}},
    {{"available"}, 0, {}, {}},
    {{"notices"}, 0, {}, {}},
    {{"preload"}, 1, {}, {"--build"}},
    {{"preloads", "discard"}, 1, {}, {"--build"}},
    {{"preloads"}, 0, {}, {}},
    {{"status"}, 1, {}, {}},
    {{"manage"}, 1, {}, {}},
    {{"locations"}, 1, {}, {}},
    {{"self", "status"}, 0, {}, {}},
    {{"self", "update"}, 0, {}, {}},
    {{"self", "cleanup"}, 0, {}, {}},
    {{"service", "status"}, 0, {"--cached"}, {}},
    {{"crashes", "list"}, 0, {"--all"}, {}},
    {{"crashes", "cleanup"}, 0, {}, {}},
    {{"agreements", "show"}, 1, {}, {}},
    {{"agreements", "agree"}, 1, {"--age-16-or-older"}, {"--agreement-version"}},
    {{"agreements", "withdraw"}, 1, {}, {}},
    {{"agreements"}, 0, {}, {}},
    {{"crashes", "show"}, 1, {}, {}},
    {{"crashes", "discard"}, 1, {}, {}},
    {{"crashes", "restore"}, 1, {}, {}},
    {{"crashes", "delete"}, 1, {}, {"--confirm-report"}},
    {{"crashes", "send"}, 1, {"--age-16-or-older"}, {"--consent-version"}},
    {{"settings", "get"}, 0, {}, {}},
    {{"settings", "set"}, 2, {}, {}},
    {{"operations", "list"}, 0, {}, {}},
    {{"operations", "show"}, 1, {}, {}},
    {{"operations", "wait"}, 1, {}, {}},
    {{"operations", "cancel"}, 1, {}, {}},
    {{"operations", "retry"}, 1, {}, {}},
    {{"repository", "configure"}, 0, {}, {"--origin", "--root", "--ca-bundle"}},
    {{"updates", "check"}, 0, {"--background"}, {}},
    {{"updates", "show"}, 1, {}, {}},
    {{"updates", "defer"}, 1, {}, {"--build"}},
    {{"install"}, 1, {"--launch"}, {}},
    {{"update"}, 1, {"--launch", "--after-exit"}, {"--build", "--session"}},
    {{"repair"}, 1, {}, {}},
    {{"verify"}, 1, {}, {}},
    {{"rollback"}, 1, {}, {}},
    {{"launch"}, 1, {"--play-current"}, {}},
    {{"observe"}, 1, {}, {"--session"}},
    {{"uninstall"}, 1, {"--remove-saves"}, {"--confirm-game"}},
    {{"channel", "set"}, 2, {}, {}},
    {{"channel", "unlock"}, 1, {}, {}},
    {{"open"}, 2, {}, {}},
};

// Wider than the table: an option that no command knows still takes its value with it.
const WordSet values = {"--create",
                        "--remove",
                        "--data-dir",
                        "--origin",
                        "--root",
                        "--ca-bundle",
                        "--confirm-cleanup",
                        "--confirm-report",
                        "--consent-version",
                        "--build",
                        "--session",
                        "--confirm-game",
                        "--game",
                        "--manifest-target",
                        "--keep-bytes",
                        "--agreement-version"};

// The commands whose first operand is an identifier.
const WordSet identified = {"status",     "manage",  "locations", "install", "update",
                            "repair",     "verify",  "rollback",  "launch",  "observe",
                            "uninstall",  "channel", "open",      "crashes", "agreements",
                            "operations", "updates"};

void identifier(const std::string& text) {
  try {
    validate_identifier(text);
  } catch (const Error&) {
    fail("usage", "Game, build, session, report and operation IDs must be valid identifiers");
  }
}

bool starts_with(const Words& args, const Words& words) {
  return args.size() >= words.size() && std::equal(words.begin(), words.end(), args.begin());
}

/// A line with the questions that the checks ask of it.
struct Line : CliLine {
  explicit Line(const CliCommand& row) { command = &row; }

  bool is(std::string_view first) const { return command->words.front() == first; }
  bool is(std::string_view first, std::string_view second) const {
    return command->words.size() == 2 && is(first) && command->words[1] == second;
  }
  bool given(std::string_view option) const { return options.contains(option); }
  bool confirmed_by(std::string_view option) const {
    const auto found = options.find(option);
    return found != options.end() && found->second == operands.front();
  }
};

Line read_line(const CliCommand& row, const Words& args) {
  Line line(row);
  for (std::size_t i = row.words.size(); i < args.size(); ++i) {
    const std::string& word = args[i];
    if (row.flags.contains(word)) {
      require(line.flags.insert(word).second, "usage", [&] { return "Duplicate option: " + word; });
    } else if (!row.options.contains(word)) {
      require(!word.starts_with("--"), "usage", [&] { return "Unsupported option: " + word; });
      line.operands.push_back(word);
    } else {
      require(!line.given(word) && i + 1 < args.size(), "usage",
              [&] { return "Duplicate or missing option value: " + word; });
      require(!args[++i].empty(), "usage",
              [&] { return "Option value must not be empty: " + word; });
      line.options.emplace(word, args[i]);
    }
  }
  return line;
}

void check_operands(const Line& line) {
  require(line.operands.size() == line.command->operands, "usage",
          "Wrong number of command operands; run tavro --help");
  require(std::none_of(line.operands.begin(), line.operands.end(),
                       [](const std::string& operand) { return operand.empty(); }),
          "usage", "Command operands must not be empty");
}

void check_consent(const Line& line) {
  if (line.is("uninstall"))
    require(line.confirmed_by("--confirm-game"), "confirmation_required",
            "Specify uninstall GAME --confirm-game GAME; add --remove-saves only to delete saves");
  if (line.is("crashes", "delete"))
    require(line.confirmed_by("--confirm-report"), "confirmation_required",
            "Confirm the exact report with --confirm-report REPORT");
  if (line.is("agreements", "agree"))
    require(line.given("--agreement-version"), "agreement_version",
            "Read it with agreements show ID, then agree with --agreement-version VERSION");
  if (line.is("crashes", "send"))
    require(line.given("--consent-version"), "crash_consent",
            "Review the report, then supply its exact --consent-version");
}

void check_update(const Line& line) {
  const bool sound = line.flags.contains("--after-exit")
                         ? !line.flags.contains("--launch") && line.given("--build")
                         : !line.given("--build") && !line.given("--session");
  require(sound, "usage",
          "Use update GAME --after-exit --build BUILD [--session SESSION], or update GAME "
          "[--launch]");
}

void check_setting(const std::string& value) {
  try {
    parse_json(value, kMaxSettingBytes);
  } catch (const Error&) {
    fail("usage", "Setting value must be bounded valid JSON");
  }
}

void check_command(const Line& line) {
  if (line.is("repository", "configure"))
    require(line.given("--origin") && line.given("--root"), "usage",
            "Repository setup needs --origin and an out-of-band trusted --root");
  if (line.is("updates", "defer"))
    require(line.given("--build"), "usage", "Deferral needs --build BUILD");
  if (line.is("preloads", "discard"))
    require(line.given("--build"), "usage", "Removing a preload needs GAME --build BUILD");
  if (line.is("preload") || line.is("preloads", "discard")) identifier(line.operands.front());
  if (line.is("update")) check_update(line);
  if (line.is("settings", "set")) check_setting(line.operands[1]);
  if (line.is("open"))
    require(
        line.operands[1] == "content" || line.operands[1] == "saves" || line.operands[1] == "state",
        "usage", "Open expects content, saves or state");
}

void check_identifiers(const Line& line) {
  if (!line.operands.empty() && identified.contains(line.command->words.front()))
    identifier(line.operands.front());
  for (const char* option : {"--game", "--build", "--session"}) {
    const auto found = line.options.find(option);
    if (found != line.options.end()) identifier(found->second);
  }
  if (line.is("channel", "set")) identifier(line.operands[1]);
}

/// True when the line is one of the two commands that the table leaves out, and sound.
bool is_maintenance(const Words& args) {
  if (starts_with(args, {"self", "uninstall"})) {
    require(args.size() == 2 || (args.size() == 3 && args[2] == "--remove-data"), "usage",
            "Use self uninstall [--remove-data]");
    return true;
  }
  if (!starts_with(args, {"self", "shortcut"})) return false;
  if (args.size() == 5 && args[2] == "create" && args[3] == "--game") {
    identifier(args[4]);
  } else {
    require(args.size() == 3 && (args[2] == "create" || args[2] == "remove"), "usage",
            "Use self shortcut create [--game GAME] or self shortcut remove");
  }
  return true;
}

}  // namespace

bool cli_option_has_value(std::string_view word) { return values.contains(word); }

const std::vector<CliCommand>& cli_commands() { return grammar; }

CliLine read_cli_command(const Words& args) {
  const auto row = std::find_if(grammar.begin(), grammar.end(), [&](const CliCommand& candidate) {
    return starts_with(args, candidate.words);
  });
  require(row != grammar.end(), "usage", "Unknown command; run tavro --help");
  Line line = read_line(*row, args);
  check_operands(line);
  check_consent(line);
  check_command(line);
  check_identifiers(line);
  return {line.command, std::move(line.flags), std::move(line.options), std::move(line.operands)};
}

void validate_cli_command(const Words& args) {
  if (!is_maintenance(args)) read_cli_command(args);
}

}  // namespace tavro
