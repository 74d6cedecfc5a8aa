#include "console/cli_entry.h"

#include <algorithm>
#include <set>

#include "console/cli_grammar.h"
#include "domain/error.h"
#include "domain/input.h"

namespace tavro {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kMaxArguments = 128;
constexpr std::size_t kMaxArgumentBytes = 16384;

bool asks_for_json(const Words& arguments) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--json") return true;
    if (cli_option_has_value(arguments[i])) ++i;
  }
  return false;
}

void check_bounds(const Words& arguments) {
  for (const std::string& argument : arguments)
    require(argument.size() <= kMaxArgumentBytes && argument.find('\0') == std::string::npos,
            "usage", "CLI argument exceeds its bound or contains NUL");
  require(arguments.size() <= kMaxArguments, "usage", "CLI invocation exceeds 128 arguments");
}

/// The word behind the one at `position`, which becomes the current one.
const std::string& value_behind(const Words& arguments, std::size_t& position,
                                const std::string& missing) {
  require(position + 1 < arguments.size() && !arguments[position + 1].empty(), "usage", missing);
  return arguments[++position];
}

void read_global_options(const Words& arguments, CliEntry& entry) {
  std::set<std::string> seen;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    if (word == "--json" || word == "--help" || word == "--data-dir") {
      require(seen.insert(word).second, "usage",
              [&] { return "Duplicate global option: " + word; });
      if (word == "--data-dir")
        entry.data_dir =
            path_from_utf8(value_behind(arguments, i, "--data-dir needs a nonempty path"));
      continue;
    }
    entry.args.push_back(word);
    if (cli_option_has_value(word))
      entry.args.push_back(value_behind(arguments, i, "Option needs a nonempty value: " + word));
  }
  entry.json = seen.contains("--json");
  entry.help = seen.contains("--help");
  entry.data_dir_set = seen.contains("--data-dir");
}

/// Where `name` stands as a word of its own, not as another option's value; the end when nowhere.
Words::iterator find_word(Words& args, std::string_view name) {
  for (auto word = args.begin(); word != args.end(); ++word) {
    if (*word == name) return word;
    if (!cli_option_has_value(*word)) continue;
    require(std::next(word) != args.end(), "usage", [&] { return *word + " needs a value"; });
    ++word;
  }
  return args.end();
}

}  // namespace

CliEntry parse_cli_entry(const Words& arguments, const std::filesystem::path& default_data_dir,
                         bool* json_out) {
  CliEntry entry;
  entry.data_dir = default_data_dir;
  if (json_out != nullptr && asks_for_json(arguments)) *json_out = true;
  check_bounds(arguments);
  read_global_options(arguments, entry);
  if (json_out != nullptr && entry.json) *json_out = true;
  require(!entry.data_dir.empty(), "usage", "Data directory must not be empty");
  entry.help = entry.help || entry.args.empty() || entry.args == Words{"help"};
  if (!entry.help) validate_cli_command(entry.args);
  return entry;
}

std::string cli_option(Words& args, std::string_view name, const std::string& fallback) {
  const auto word = find_word(args, name);
  if (word == args.end()) return fallback;
  require(std::next(word) != args.end(), "usage",
          [&] { return std::string(name) + " needs a value"; });
  std::string value = *std::next(word);
  args.erase(word, word + 2);
  return value;
}

bool cli_flag(Words& args, std::string_view name) {
  const auto word = find_word(args, name);
  if (word == args.end()) return false;
  args.erase(word);
  return true;
}

std::string cli_help() {
  return "Tavro 0.1.0\n"
         "Usage: tavro [--data-dir PATH] [--json] COMMAND\n"
         "  repository configure --origin HTTPS_ORIGIN --root FILE [--ca-bundle FILE]\n"
         "  list | status GAME | manage GAME | locations GAME\n"
         "  install GAME [--launch] | update GAME [--launch] | verify GAME | repair GAME | "
         "rollback GAME\n"
         "  update GAME --after-exit --build BUILD [--session SESSION]\n"
         "  launch GAME [--play-current]\n"
         "  observe GAME [--session SESSION]\n"
         "  updates check [--background] | updates show GAME | updates defer GAME --build BUILD\n"
         "  preload GAME [--build BUILD] | preloads | preloads discard GAME --build BUILD\n"
         "  self status | self update | self cleanup\n"
         "  self uninstall [--remove-data]\n"
         "  self shortcut create [--game GAME] | self shortcut remove\n"
         "  uninstall GAME --confirm-game GAME [--remove-saves]\n"
         "  operations list | operations show|wait|cancel|retry ID\n"
         "  settings get | settings set KEY JSON_VALUE\n"
         "  channel set GAME CHANNEL\n"
         "  channel unlock GAME      (reads the access code from standard input)\n"
         "  open GAME content|saves|state\n"
         "  available | notices | service status [--cached]\n"
         "  crashes list [--all] | crashes show|discard|restore REPORT | crashes cleanup\n"
         "  crashes delete REPORT --confirm-report REPORT\n"
         "  crashes send REPORT --consent-version VERSION [--age-16-or-older]\n"
         "  agreements | agreements show ID | agreements agree ID --agreement-version VERSION "
         "--age-16-or-older | agreements withdraw ID\n"
         "Commands share the GUI backend.\n";
}

}  // namespace tavro
