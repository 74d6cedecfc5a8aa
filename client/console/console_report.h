#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>

#include "domain/error.h"
#include "domain/json.h"

namespace tavro {

/// How a failure is told: its sentence, the sentence and below it what can be done next, or the
/// sentence and a line of JSON for a program.
enum class ReportForm { text, text_and_commands, json_line };

/// The document as one line. Bytes of a path that are no UTF-8 are replaced: what happened has to
/// be told all the same.
std::string compact_line(const json& document);

/// Writes the text to standard output, with a newline or as it is. Throws `output` when it does not arrive there:
/// a full disk, a closed stream, a reader that has gone.
void write_line(std::string_view text);
void write_text(std::string_view text);

/// 2 for `usage`, 4 for `cancelled`, 1 for every other code.
int exit_code(const Error& error);

/// Tells a failure at the edge of the process: its message on standard error; of an `Error` also
/// its next commands, each on a line behind "Try: ", or the problem as a line of JSON on standard
/// output. Returns the exit status.
int report_failure(const std::exception& failure, ReportForm form) noexcept;

/// The edge of a process: what `body` returns, or the status of the failure that it threw, which is
/// told in this form.
int run_reported(const std::function<int()>& body, ReportForm form = ReportForm::text);

}  // namespace tavro
