#pragma once

#include <exception>
#include <string>
#include <vector>

#include "answer.h"

namespace tavro::program {

/// Tells the answer on standard output and returns its exit status. Throws `output`.
int tell(Answer answer, bool as_json);

/// What a user can do about a failure of this code: that of the error itself, else what is known
/// here. `subject` is what the command was about, empty when nothing.
std::vector<std::string> next_steps(const std::exception& failure, const std::string& subject);

/// Tells a failure: the sentence and what to do next on standard error, and as JSON the line
/// `{"problem":{"code","message","next"},"schema_version":1}` on standard output. Returns the
/// exit status.
int tell_failure(const std::exception& failure, bool as_json, const std::string& subject) noexcept;

}  // namespace tavro::program
