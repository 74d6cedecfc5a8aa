#include "start/bootstrap_answers.h"

#include <nlohmann/json.hpp>

#include <exception>

#include "console/console_report.h"
#include "launcher/launcher_status.h"

namespace tavro {
namespace {

/// Nothing for a line that is malformed.
std::optional<CliEntry> read_line(const std::vector<std::string>& arguments, bool* as_json) {
  try {
    // The line alone is read: which folder it would mean is of no interest yet.
    return parse_cli_entry(arguments, "/", as_json);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::string status_sentences(const LauncherStore& store, const LauncherRecord& record) {
  const auto state = record.active ? "Launcher build " + record.active->build_id + " is active."
                                   : std::string("No launcher has proved itself yet.");
  const auto open = probation_sentences(store, record);
  return open.empty() ? state : state + " " + open;
}

}  // namespace

bool asks_for_json(const std::vector<std::string>& arguments) noexcept {
  bool as_json = false;
  (void)read_line(arguments, &as_json);
  return as_json;
}

std::optional<int> answer_help(const std::vector<std::string>& arguments) {
  const auto line = read_line(arguments, nullptr);
  if (arguments.empty() || !line || !line->help || line->data_dir_set) return std::nullopt;
  return print_help(line->json);
}

int print_help(bool as_json) {
  if (as_json)
    write_line(compact_line({{"schema_version", 1}, {"kind", "help"}, {"text", cli_help()}}));
  else
    write_text(cli_help());
  return 0;
}

bool asks_for_status(const CliEntry& line) {
  return line.args == std::vector<std::string>{"self", "status"};
}

int print_status(const LauncherStore& store, bool as_json) {
  write_line(as_json ? compact_line(store.status()) : status_sentences(store, store.record()));
  return 0;
}

}  // namespace tavro
