#include "publisher/command.h"

#include <algorithm>
#include <iostream>
#include <iterator>

#include "console/console_report.h"
#include "domain/error.h"
#include "domain/input.h"
#include "publisher/commands.h"

namespace tavro {
namespace {

constexpr std::string_view program = "tavro-publish";

const OptionRule json_rule{"--json", "", "Print one line of JSON instead of a sentence",
                           OptionUse::flag};
const OptionRule help_rule{"--help", "", "Print this text", OptionUse::flag};

std::vector<PublishCommand> all_commands() {
  std::vector<PublishCommand> all;
  for (const auto subject : {key_commands, root_commands, release_commands, game_commands,
                             theme_commands, package_commands, repository_commands,
                             game_repository_commands, service_commands, check_commands})
    std::ranges::move(subject(), std::back_inserter(all));
  for (PublishCommand& command : all) {
    command.options.push_back(json_rule);
    command.options.push_back(help_rule);
  }
  return all;
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size() + 2, width), ' ');
  return text;
}

std::string usage(const std::vector<PublishCommand>& commands) {
  std::string text = "Usage: " + std::string(program) + " COMMAND [OPTION]...\n\nCommands:\n";
  for (const PublishCommand& command : commands)
    text += "  " + padded(std::string(command.words), 23) + std::string(command.summary) + '\n';
  return text + "\nEach command tells its options with --help.\n";
}

std::string usage(const PublishCommand& command) {
  std::string text = "Usage: " + std::string(program) + ' ' + std::string(command.words);
  std::string list;
  for (const OptionRule& rule : command.options) {
    std::string option(rule.name);
    if (!rule.value.empty()) option += ' ' + std::string(rule.value);
    if (rule.use == OptionUse::required) text += ' ' + option;
    list += "  " + padded(option, 28) + std::string(rule.help) +
            (rule.use == OptionUse::repeated ? "; may be repeated\n" : "\n");
  }
  return text + " [OPTION]...\n" + std::string(command.summary) + ".\n\nOptions:\n" + list;
}

/// How many arguments the command's words take; 0 when they do not begin with them.
std::size_t matching_words(const PublishCommand& command, const std::vector<std::string>& words) {
  const std::size_t space = command.words.find(' ');
  const bool first = !words.empty() && words[0] == command.words.substr(0, space);
  if (space == std::string_view::npos) return first ? 1 : 0;
  return first && words.size() > 1 && words[1] == command.words.substr(space + 1) ? 2 : 0;
}

bool asks_for_help(const std::vector<std::string>& arguments) {
  return arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h");
}

[[noreturn]] void refuse_command(const std::vector<PublishCommand>& commands,
                                 const std::vector<std::string>& arguments) {
  if (arguments.empty()) fail("usage", "Choose a command; tavro-publish --help lists them");
  // "keys" alone, or with a word that is not one of its own, deserves the words that would do.
  std::string choices;
  for (const PublishCommand& command : commands)
    if (command.words.starts_with(arguments[0] + ' '))
      choices += (choices.empty() ? "" : " or ") + std::string(command.words);
  require(choices.empty(), "usage", [&] { return "Use " + choices; });
  const bool option = arguments[0].starts_with("-");
  fail("usage", (option ? "Unknown option: " : "Unknown command: ") + arguments[0]);
}

void run_command(const PublishCommand& command, const Arguments& arguments,
                 const std::function<bool()>& cancelled, ReportForm form) {
  if (arguments.has("--help")) {
    std::cout << usage(command) << std::flush;
    return;
  }
  const CommandContext context{cancelled, form == ReportForm::json_line};
  CommandResult result = command.run(arguments, context);
  result.document["schema_version"] = 1;
  // The work is done, so a path whose bytes are no UTF-8 must not turn it into a failure.
  const std::string line =
      form == ReportForm::json_line
          ? result.document.dump(-1, ' ', false, json::error_handler_t::replace)
          : result.sentence;
  std::cout << line << std::endl;
}

void dispatch(const std::vector<std::string>& arguments, const std::function<bool()>& cancelled,
              ReportForm form) {
  const std::vector<PublishCommand> commands = all_commands();
  if (asks_for_help(arguments)) {
    std::cout << usage(commands) << std::flush;
    return;
  }
  for (const PublishCommand& command : commands) {
    const std::size_t words = matching_words(command, arguments);
    if (words == 0) continue;
    const auto rest = arguments.begin() + static_cast<std::ptrdiff_t>(words);
    const Arguments options(command.options, {rest, arguments.end()});
    run_command(command, options, cancelled, form);
    return;
  }
  refuse_command(commands, arguments);
}

}  // namespace

Progress CommandContext::phase(std::string_view line) const {
  if (!quiet) std::cerr << line << std::endl;
  return [asked = cancelled](unsigned long long, unsigned long long) { return !asked || !asked(); };
}

std::filesystem::path path_option(const Arguments& arguments, std::string_view option) {
  const std::string text = arguments.value(option);
  return text.empty() ? std::filesystem::path() : std::filesystem::absolute(path_from_utf8(text));
}

int run_publish(const std::vector<std::string>& arguments, const std::function<bool()>& cancelled) {
  // Known before anything else: misuse is told in the form that was asked for, too.
  const bool asks_for_json = std::ranges::find(arguments, "--json") != arguments.end();
  const ReportForm form = asks_for_json ? ReportForm::json_line : ReportForm::text;
  try {
    dispatch(arguments, cancelled, form);
    return 0;
  } catch (const std::exception& failure) {
    return report_failure(failure, form);
  }
}

}  // namespace tavro
