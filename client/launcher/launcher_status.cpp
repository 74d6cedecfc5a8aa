#include "launcher/launcher_status.h"

#include <exception>

#include "domain/input.h"
#include "domain/json_fields.h"
#include "launcher/launcher_startup.h"

namespace tavro {
namespace {

/// " (process 123)", as the launcher itself said; empty when it has not come that far.
std::string process_of(const LauncherStore& store, const LauncherAttempt& attempt) {
  try {
    const auto text = read_file(store.startup_ack_path(attempt), launcher_proof_bytes);
    const auto pid = parse_json(text, launcher_proof_bytes).at("pid").get<unsigned long long>();
    return " (process " + std::to_string(pid) + ")";
  } catch (const std::exception&) {
    return {};
  }
}

std::string failure_sentence(const LauncherFailure& failure) {
  std::string text = failure.reference ? "Build " + failure.reference->build_id : "A build";
  text += " did not start (" + (failure.problem.empty() ? "unknown" : failure.problem) + ")";
  if (!failure.reason.empty()) text += ": " + failure.reason;
  return text + ". self update tries it again, or brings a newer one.";
}

}  // namespace

std::string probation_sentences(const LauncherStore& store, const LauncherRecord& record) {
  std::string text;
  const auto add = [&](const std::string& sentence) {
    text += (text.empty() ? "" : " ") + sentence;
  };
  if (record.candidate) add("Build " + record.candidate->build_id + " is tried at the next start.");
  if (record.attempt)
    add("The first start of build " + record.attempt->reference.build_id + " has not ended" +
        process_of(store, *record.attempt) + "; close it if it hangs, and start again.");
  if (record.failed_candidate) add(failure_sentence(*record.failed_candidate));
  return text;
}

}  // namespace tavro
