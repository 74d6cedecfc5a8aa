#include "operation_run.h"

#include <exception>
#include <utility>

#include "domain/error.h"
#include "operations/operation_journal.h"
#include "preferences/settings.h"

namespace tavro::program {
namespace {

/// How the work failed counts, not whether the journal could be told.
void tell_journal(Operation& operation, const std::exception& failure) noexcept {
  try {
    operation.fail_with(failure);
  } catch (const std::exception&) {
    // Its lock goes with the process: to others it was interrupted.
  }
}

}  // namespace

Answer as_operation(Context& context, const std::function<Answer()>& work) {
  const Settings settings = settings_or_defaults(context.root);
  Operation operation = OperationJournal(context.root)
                            .begin(context.args, context.retry_of, settings.concurrent_operations);
  context.watch([&](std::string_view phase, auto done,
                    auto total) { return operation.report(phase, done, total); },
                [&] { return operation.cancel_asked(); });
  try {
    Answer answer = work();
    context.watch({}, {});
    operation.succeed(answer.document);
    answer.document["operation_id"] = operation.id();
    return answer;
  } catch (const std::exception& failure) {
    context.watch({}, {});
    tell_journal(operation, failure);
    throw;
  }
}

}  // namespace tavro::program
