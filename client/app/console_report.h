#pragma once

#include <exception>
#include <functional>

#include "domain/error.h"

namespace tavro {

enum class ReportForm { text, json_line };

/// 2 for `usage`, 4 for `cancelled`, 1 for every other code.
int exit_code(const Error& error);

/// Tells a failure at the edge of the process: its message on standard error and, for an `Error` in
/// the JSON form, one line with the problem on standard output. Returns the exit status.
int report_failure(const std::exception& failure, ReportForm form) noexcept;

/// The edge of a process: what `body` returns, or the status of the failure that it threw, which is
/// told as text.
int run_reported(const std::function<int()>& body);

}  // namespace tavro
