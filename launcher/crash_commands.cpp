#include <utility>

#include "crashes/crash_store.h"
#include "distributor/distributor.h"
#include "domain/error.h"
#include "domain/input.h"
#include "download/repository_client.h"
#include "games/game_session.h"
#include "handlers.h"
#include "installation/data_folder.h"
#include "reachable_repository.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

constexpr std::size_t repository_record_bytes = 65536;

json entry_document(const CrashEntry& entry) {
  json document = {{"report_id", entry.id}, {"state", crash_state_name(entry.state)},
                   {"bytes", entry.size},   {"game_id", nullptr},
                   {"start", nullptr},      {"consent_version", nullptr},
                   {"problem", nullptr}};
  if (entry.report) {
    document["game_id"] = entry.report->game_id;
    document["start"] = entry.report->seen.to_json();
  }
  if (!entry.consent_version.empty()) document["consent_version"] = entry.consent_version;
  if (!entry.problem.empty()) document["problem"] = entry.problem;
  return document;
}

bool is_shown(const CrashEntry& entry) {
  return entry.state == CrashState::kept || entry.state == CrashState::sending;
}

/// What cannot be read now is found by a later command.
void collect_reports(Context& context, const CrashStore& store) {
  try {
    store.collect(GameLibrary(context.root));
  } catch (const Error& error) {
    if (error.code != "busy") throw;
  }
}

std::optional<CrashService> known_service(Context& context) {
  context.show("asking the repository", 0, 0);
  const auto told = Distributor(context.root).known<CrashService>(reachable_repository(context));
  return told ? told->document : std::nullopt;
}

std::vector<std::string> consent_lines(const std::optional<CrashService>& service,
                                       const std::string& id) {
  if (!service) return {"", "The distributor takes no reports of crashes: it stays here."};
  return {"",
          "It would go to " + service->url + ". What becomes of it (consent version " +
              service->consent_version + "):",
          service->consent_text, "",
          "To send it: tavro crashes send " + id + " --consent-version " +
              service->consent_version + (service->minimum_age ? " --age-16-or-older" : "")};
}

Answer told_state(const CrashStore& store, Context& context, const std::string& sentence) {
  return {{{"report", entry_document(store.find(context.subject()))}}, sentence};
}

}  // namespace

Answer list_crashes(Context& context) {
  const CrashStore store(context.root);
  collect_reports(context, store);
  json list = json::array();
  std::vector<std::vector<std::string>> rows = {{"REPORT", "GAME", "WHEN", "ENDED", "STATE"}};
  for (const CrashEntry& entry : store.list()) {
    if (!context.flag("--all") && !is_shown(entry)) continue;
    list.push_back(entry_document(entry));
    rows.push_back({entry.id, entry.report ? entry.report->game_id : "?",
                    time_text(entry.happened()),
                    entry.report ? std::string(outcome_name(entry.report->seen.outcome)) +
                                       ", status " + std::to_string(entry.report->seen.status)
                                 : entry.problem,
                    std::string(crash_state_name(entry.state))});
  }
  const std::string text = list.empty() ? "There are no crash reports." : table_text(rows);
  return {{{"reports", std::move(list)}}, text};
}

Answer show_crash(Context& context) {
  const CrashStore store(context.root);
  const std::string bytes = store.bytes(context.subject());
  const auto service = known_service(context);
  std::vector<std::string> lines = {bytes};
  for (std::string& line : consent_lines(service, context.subject()))
    lines.push_back(std::move(line));
  return {{{"report", entry_document(store.find(context.subject()))},
           {"content", bytes},
           {"service", service ? service->to_json() : json()}},
          line_text(lines)};
}

Answer send_crash(Context& context) {
  const CrashStore store(context.root);
  static_cast<void>(store.find(context.subject()));
  const auto service = known_service(context);
  require(service.has_value(), "crash_service_missing",
          "The distributor takes no reports of crashes, or was never asked");
  // Others may need it while the report is on its way.
  context.close_repository();
  const auto record = RepositoryRecord::parse(
      read_file(DataPaths(data_folder(context.root)).repository, repository_record_bytes));
  const CrashConsent consent{context.option("--consent-version"), context.flag("--age-16-or-older")
                                                                      ? AgeGiven::sixteen_or_older
                                                                      : AgeGiven::no};
  const bool sent = store.send(context.subject(), *service, consent, record.ca_bundle,
                               context.progress_of("sending"));
  return told_state(store, context, sent ? "Sent. Thank you." : "It was sent before.");
}

Answer discard_crash(Context& context) {
  const CrashStore store(context.root);
  store.discard(context.subject());
  return told_state(store, context, "Put aside; it is not sent, and removed in a week.");
}

Answer restore_crash(Context& context) {
  const CrashStore store(context.root);
  store.restore(context.subject());
  return told_state(store, context, "It waits for you again.");
}

Answer delete_crash(Context& context) {
  CrashStore(context.root).remove(context.subject());
  return {{{"report_id", context.subject()}, {"deleted", true}}, "Deleted."};
}

Answer clean_crashes(Context& context) {
  const std::size_t removed = CrashStore(context.root).cleanup(distributor_clock());
  return {{{"removed", removed}}, "Removed " + count_text(removed, "report") + '.'};
}

}  // namespace tavro::program
