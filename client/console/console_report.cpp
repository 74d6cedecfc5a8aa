#include "console/console_report.h"

#include <nlohmann/json.hpp>

#include <iostream>

namespace tavro {
namespace {

void print_problem(const Error& error) {
  const json problem = {
      {"schema_version", 1},
      {"problem", {{"code", error.code}, {"message", error.what()}}},
  };
  std::cout << compact_line(problem) << std::endl;
}

}  // namespace

std::string compact_line(const json& document) {
  return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

void write_line(std::string_view text) { write_text(std::string(text) + '\n'); }

void write_text(std::string_view text) {
  std::cout << text << std::flush;
  require(bool(std::cout), "output",
          "The command was carried out, but its answer cannot be written to standard output");
}

int exit_code(const Error& error) {
  if (error.code == "usage") return 2;
  if (error.code == "cancelled") return 4;
  return 1;
}

int report_failure(const std::exception& failure, ReportForm form) noexcept {
  const auto* error = dynamic_cast<const Error*>(&failure);
  const int status = error == nullptr ? 1 : exit_code(*error);
  try {
    if (error != nullptr && form == ReportForm::json_line) print_problem(*error);
    std::cerr << failure.what() << std::endl;
    if (error != nullptr && form == ReportForm::text_and_commands)
      for (const auto& command : error->next_commands) std::cerr << "Try: " << command << std::endl;
  } catch (const std::exception&) {
    // Nothing is left to tell it to; the status still does.
  }
  return status;
}

int run_reported(const std::function<int()>& body, ReportForm form) {
  try {
    return body();
  } catch (const std::exception& failure) {
    return report_failure(failure, form);
  }
}

}  // namespace tavro
