// The journal of long works, of this process and of others.

#include <chrono>
#include <thread>

#include "command_table.h"
#include "domain/error.h"
#include "exit_status.h"
#include "handlers.h"
#include "operations/operation_journal.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

constexpr std::chrono::milliseconds look_period{200};

/// Of a time in milliseconds.
std::string moment_text(std::uint64_t time) {
  constexpr std::uint64_t milliseconds_a_second = 1000;
  return time_text(time / milliseconds_a_second);
}

std::string request_text(const OperationRecord& operation) {
  std::string text;
  for (const std::string& word : operation.request) text += (text.empty() ? "" : " ") + word;
  return text;
}

json operation_document(const OperationRecord& operation) {
  json document = operation.to_json();
  document.erase("schema_version");
  document["command"] = request_text(operation);
  return document;
}

std::string progress_word(const OperationRecord& operation) {
  if (operation.state != OperationState::running || operation.phase.empty()) return {};
  if (operation.total == 0) return operation.phase;
  return operation.phase + " " + byte_text(operation.done) + " of " + byte_text(operation.total);
}

std::string operation_text(const OperationRecord& operation) {
  std::vector<std::string> lines = {
      request_text(operation) + ": " + std::string(operation_state_name(operation.state)),
      "Operation " + operation.id + ", begun " + moment_text(operation.started) +
          (operation.ended == 0 ? "" : ", ended " + moment_text(operation.ended))};
  if (!progress_word(operation).empty()) lines.push_back(progress_word(operation));
  if (!operation.problem_message.empty()) lines.push_back(operation.problem_message);
  if (operation.state != OperationState::running && operation.state != OperationState::succeeded)
    lines.push_back("Try again: tavro operations retry " + operation.id);
  return line_text(lines);
}

Answer operation_answer(const OperationRecord& operation, int status) {
  return {{{"operation", operation_document(operation)}}, operation_text(operation), status};
}

int status_of(const OperationRecord& operation) {
  switch (operation.state) {
    case OperationState::succeeded:
      return exit_done;
    case OperationState::cancelled:
      return exit_cancelled;
    case OperationState::failed:
      return exit_status(operation.problem_code);
    default:
      return exit_failed;
  }
}

}  // namespace

Answer list_operations(Context& context) {
  json operations = json::array();
  std::vector<std::vector<std::string>> rows = {{"OPERATION", "STATE", "BEGUN", "COMMAND"}};
  for (const OperationRecord& each : OperationJournal(context.root).list()) {
    operations.push_back(operation_document(each));
    rows.push_back({each.id, std::string(operation_state_name(each.state)),
                    moment_text(each.started), request_text(each)});
  }
  const std::string text = operations.empty() ? "The journal is empty." : table_text(rows);
  return {{{"operations", std::move(operations)}}, text};
}

Answer show_operation(Context& context) {
  return operation_answer(OperationJournal(context.root).find(context.subject()), exit_done);
}

Answer wait_for_operation(Context& context) {
  const OperationJournal journal(context.root);
  for (;;) {
    const OperationRecord operation = journal.find(context.subject());
    if (operation.state != OperationState::running)
      return operation_answer(operation, status_of(operation));
    context.label_progress(request_text(operation));
    const std::string phase = operation.phase.empty() ? "starting" : operation.phase;
    require(context.show(phase, operation.done, operation.total), "cancelled",
            "The operation was not waited for any longer; it goes on");
    std::this_thread::sleep_for(look_period);
  }
}

Answer cancel_operation(Context& context) {
  const OperationJournal journal(context.root);
  const bool asked = journal.cancel(context.subject());
  const OperationRecord operation = journal.find(context.subject());
  return {
      {{"asked", asked}, {"operation", operation_document(operation)}},
      asked ? "The operation was asked to stop; see it end with: tavro operations wait " +
                  operation.id
            : "The operation does not run: " + std::string(operation_state_name(operation.state))};
}

Answer retry_operation(Context& context) {
  const OperationRecord operation = OperationJournal(context.root).find(context.subject());
  require(operation.state != OperationState::running, "busy", "The operation still runs");
  require(is_journaled(operation.request), "invalid_state",
          "The journal entry of this operation names no command that can be tried again");
  context.retry_of = operation.id;
  return run_command(context, operation.request);
}

}  // namespace tavro::program
