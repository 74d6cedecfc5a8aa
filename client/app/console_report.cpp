#include "app/console_report.h"

#include <nlohmann/json.hpp>

#include <iostream>

#include "domain/json.h"

namespace tavro {
namespace {

void print_problem(const Error& error) {
  const json problem = {
      {"schema_version", 1},
      {"problem", {{"code", error.code}, {"message", error.what()}}},
  };
  // A message may hold a path whose bytes are no UTF-8, and a problem must be told all the same.
  std::cout << problem.dump(-1, ' ', false, json::error_handler_t::replace) << std::endl;
}

}  // namespace

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
  } catch (const std::exception&) {
    // Nothing is left to tell it to; the status still does.
  }
  return status;
}

int run_reported(const std::function<int()>& body) {
  try {
    return body();
  } catch (const std::exception& failure) {
    return report_failure(failure, ReportForm::text);
  }
}

}  // namespace tavro
