#pragma once

#include <functional>

#include "answer.h"
#include "context.h"

namespace tavro::program {

/// Does a long work of a command as an operation: it stands in the journal, others see how far it
/// is and can stop it, and as many run at a time as the settings allow. The answer's document gets
/// `operation_id`. Throws as the work and `OperationJournal::begin`.
Answer as_operation(Context& context, const std::function<Answer()>& work);

}  // namespace tavro::program
