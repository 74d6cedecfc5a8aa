#include "completion.h"

#include <map>
#include <set>
#include <vector>

#include "console/cli_grammar.h"
#include "domain/error.h"

namespace tavro::program {
namespace {

constexpr std::string_view global_options = "--data-dir --help --json";
/// Options whose value is a file or a folder.
constexpr std::string_view path_options = "--data-dir|--root|--ca-bundle";

std::string joined(const std::set<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

/// What may follow the words of a line, without those of all lines.
using Choices = std::map<std::string, std::set<std::string>>;

Choices choices() {
  Choices all;
  // Maintenance answers these, and the grammar leaves them out.
  all[""] = {"help", "self"};
  all["self"] = {"shortcut", "uninstall"};
  all["self uninstall"] = {"--remove-data"};
  all["self shortcut"] = {"create", "remove"};
  all["self shortcut create"] = {"--game"};
  all["open GAME"] = {"content", "saves", "state"};
  for (const CliCommand& command : cli_commands()) {
    all[""].insert(command.words.front());
    std::string name = command.words.front();
    if (command.words.size() == 2) {
      all[name].insert(command.words[1]);
      name += " " + command.words[1];
    }
    all[name].insert(command.flags.begin(), command.flags.end());
    all[name].insert(command.options.begin(), command.options.end());
  }
  return all;
}

/// A pattern of shells for a line that begins with these words; longer ones come first.
std::string pattern(const std::string& words) {
  if (words.empty()) return "''";
  if (words == "open GAME") return "'open '*";
  return "'" + words + "'|'" + words + " '*";
}

std::string cases(const std::string& before, const std::string& behind) {
  const Choices table = choices();
  std::string text;
  for (auto entry = table.rbegin(); entry != table.rend(); ++entry)
    text +=
        "    " + pattern(entry->first) + ") " + before + joined(entry->second) + behind + " ;;\n";
  return text;
}

std::string bash_script() {
  return R"(# Completes the commands of tavro in bash.
_tavro() {
  local word=${COMP_WORDS[COMP_CWORD]} line= choices= i
  case ${COMP_WORDS[COMP_CWORD-1]} in
    )" + std::string(path_options) +
         R"() COMPREPLY=($(compgen -f -- "$word")); return ;;
  esac
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --data-dir) ((++i)) ;;
      --json|--help) ;;
      *) line+=${line:+ }${COMP_WORDS[i]} ;;
    esac
  done
  case $line in
)" + cases("choices='", "'") +
         "  esac\n  COMPREPLY=($(compgen -W \"$choices " + std::string(global_options) +
         "\" -- \"$word\"))\n}\ncomplete -F _tavro tavro tavro-bootstrap\n";
}

std::string zsh_script() {
  return R"(#compdef tavro tavro-bootstrap
# Completes the commands of tavro in zsh.
_tavro() {
  local line= i
  local -a choices
  case ${words[CURRENT-1]} in
    )" + std::string(path_options) +
         R"() _files; return ;;
  esac
  for ((i = 2; i < CURRENT; i++)); do
    case ${words[i]} in
      --data-dir) ((++i)) ;;
      --json|--help) ;;
      *) line+=${line:+ }${words[i]} ;;
    esac
  done
  case $line in
)" + cases("choices=(", ")") +
         "  esac\n  compadd -- $choices " + std::string(global_options) + "\n}\n_tavro \"$@\"\n";
}

std::string fish_script() {
  std::string text = R"(# Completes the commands of tavro in fish.
function __tavro_line
    set -l words (commandline -opc)[2..]
    set -l line
    while set -q words[1]
        switch $words[1]
            case --data-dir
                set -e words[1]
            case --json --help
            case '*'
                set -a line $words[1]
        end
        set -e words[1]
    end
    string join ' ' -- $line
end
function __tavro_choices
    switch (__tavro_line)
)";
  const Choices table = choices();
  for (auto entry = table.rbegin(); entry != table.rend(); ++entry) {
    const std::string& words = entry->first;
    const std::string match = words.empty()          ? "''"
                              : words == "open GAME" ? "'open *'"
                                                     : "'" + words + "' '" + words + " *'";
    text +=
        "        case " + match + "\n            printf '%s\\n' " + joined(entry->second) + "\n";
  }
  return text + "    end\n    printf '%s\\n' " + std::string(global_options) +
         "\nend\ncomplete -c tavro -f -a '(__tavro_choices)'\n"
         "complete -c tavro-bootstrap -f -a '(__tavro_choices)'\n"
         "complete -c tavro -l data-dir -r -F\ncomplete -c tavro -l root -r -F\n"
         "complete -c tavro -l ca-bundle -r -F\n";
}

}  // namespace

std::string completion_script(std::string_view shell) {
  if (shell == "bash") return bash_script();
  if (shell == "zsh") return zsh_script();
  if (shell == "fish") return fish_script();
  fail("usage", "Completions are made for bash, zsh and fish");
}

}  // namespace tavro::program
