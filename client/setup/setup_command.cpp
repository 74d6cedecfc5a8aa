#include "setup/setup_command.h"

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"

namespace tavro {
namespace {

/// Walks the arguments one token at a time.
class Grammar {
 public:
  explicit Grammar(const std::vector<std::string>& arguments) : arguments_(arguments) {}

  bool done() const { return next_ == arguments_.size(); }
  const std::string& take() { return arguments_[next_++]; }

  /// The next token, whatever it looks like.
  const std::string& value(std::string_view option) {
    require(!done() && !arguments_[next_].empty(), "usage",
            [&] { return "Option " + std::string(option) + " needs a value"; });
    return take();
  }

 private:
  const std::vector<std::string>& arguments_;
  std::size_t next_ = 0;
};

bool read_option(const std::string& token, Grammar& grammar, SetupCommand& command) {
  if (token == "--help" || token == "-h") {
    command.help = true;
  } else if (token == "--json") {
    command.json = true;
  } else if (token == "--remove-data") {
    command.remove_data = true;
  } else if (token == "--data-dir") {
    command.data_root = path_from_utf8(grammar.value(token));
    command.data_root_chosen = true;
  } else if (token == "--package") {
    command.package = path_from_utf8(grammar.value(token));
  } else if (token == "--game") {
    command.game = grammar.value(token);
  } else {
    return false;
  }
  return true;
}

SetupCommandKind read_shortcut_action(Grammar& grammar) {
  const std::string action = grammar.done() ? "" : grammar.take();
  if (action == "create") return SetupCommandKind::shortcut_create;
  if (action == "remove") return SetupCommandKind::shortcut_remove;
  fail("usage", "Use shortcut create or shortcut remove");
}

SetupCommandKind read_command_word(const std::string& word, Grammar& grammar) {
  if (word == "install") return SetupCommandKind::install;
  if (word == "repair") return SetupCommandKind::repair;
  if (word == "status") return SetupCommandKind::status;
  if (word == "uninstall") return SetupCommandKind::uninstall;
  if (word == "shortcut") return read_shortcut_action(grammar);
  fail("usage", "Unknown command: " + word);
}

void check_options(const SetupCommand& command) {
  require(command.package.empty() || installs(command.kind), "usage",
          "--package only applies to install and repair");
  require(!command.remove_data || command.kind == SetupCommandKind::uninstall, "usage",
          "--remove-data only applies to uninstall");
  require(command.game.empty() || command.kind == SetupCommandKind::shortcut_create, "usage",
          "--game only applies to shortcut create");
  if (!command.game.empty()) validate_identifier(command.game);
}

}  // namespace

bool installs(SetupCommandKind kind) { return kind < SetupCommandKind::status; }

SetupCommand parse_setup_command(const std::vector<std::string>& arguments,
                                 const std::filesystem::path& default_root) {
  SetupCommand command;
  command.data_root = default_root;
  Grammar grammar(arguments);
  bool word_seen = false;
  while (!grammar.done()) {
    const std::string& token = grammar.take();
    if (read_option(token, grammar, command)) continue;
    require(!token.starts_with('-'), "usage", [&] { return "Unknown option: " + token; });
    // Before the word is looked at: a second word is one too many, known or not.
    require(!word_seen, "usage", "Choose one command");
    word_seen = true;
    command.kind = read_command_word(token, grammar);
  }
  check_options(command);
  return command;
}

std::string setup_usage(std::string_view program, bool installer) {
  std::string text = "Usage: " + std::string(program) +
                     " [COMMAND] [--data-dir DIR] [--json]\n"
                     "\n"
                     "Commands:\n";
  if (installer)
    text +=
        "  install [--package DIR]   Install Tavro (the default command)\n"
        "  repair [--package DIR]    Replace damaged Tavro files; keeps games, saves and "
        "settings\n";
  return text +
         "  status                    Show what is installed\n"
         "  uninstall [--remove-data] Remove Tavro and its games; saves and settings stay\n"
         "                            unless --remove-data is given\n"
         "  shortcut create [--game ID] | shortcut remove\n";
}

}  // namespace tavro
