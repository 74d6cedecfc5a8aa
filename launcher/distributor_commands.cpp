#include <utility>

#include "console/console_report.h"
#include "distributor/agreement_decisions.h"
#include "distributor/distributor.h"
#include "domain/error.h"
#include "games/channel_unlock.h"
#include "games/game_library.h"
#include "handlers.h"
#include "reachable_repository.h"
#include "secret_input.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

constexpr char asking[] = "asking the repository";

/// Members that every told document has.
template <typename Document>
void add_freshness(json& answer, const std::optional<Told<Document>>& told) {
  answer["fetched"] = told ? json(told->fetched) : json();
  answer["cached"] = told && told->is_cached;
}

/// A line for what was not asked for just now; empty otherwise.
template <typename Document>
std::vector<std::string> freshness_lines(const std::optional<Told<Document>>& told) {
  if (!told) return {"The repository cannot be asked now, and never was."};
  if (!told->is_cached) return {};
  return {"As of " + duration_text(told->age(distributor_clock())) + " ago."};
}

template <typename Document>
std::optional<Told<Document>> told_now(Context& context) {
  context.show(asking, 0, 0);
  return Distributor(context.root).known<Document>(reachable_repository(context));
}

json agreement_document(const Agreement& agreement,
                        const std::optional<AgreementDecision>& decision) {
  return {{"id", agreement.id},
          {"version", agreement.version},
          {"title", agreement.title},
          {"minimum_age", agreement.minimum_age},
          {"every_game", agreement.every_game},
          {"games", agreement.games},
          {"agreed", decision && decision->covers(agreement)},
          {"decision", decision ? decision->to_json() : json()}};
}

std::string decision_text(const Agreement& agreement,
                          const std::optional<AgreementDecision>& decision) {
  if (!decision) return "open";
  if (!decision->agreed) return "withdrawn";
  return decision->covers(agreement) ? "agreed" : "changed since";
}

std::string games_text(const Agreement& agreement) {
  if (agreement.every_game) return "every game";
  std::string text;
  for (const std::string& game : agreement.games) text += (text.empty() ? "" : ", ") + game;
  return text.empty() ? "no game" : text;
}

/// The agreements as they stand; none known is `agreement_not_found`.
Agreement known_agreement(Context& context) {
  const auto told = told_now<Agreements>(context);
  return told && told->document ? told->document->at(context.subject())
                                : Agreements().at(context.subject());
}

AgeGiven age_of(const Context& context) {
  return context.flag("--age-16-or-older") ? AgeGiven::sixteen_or_older : AgeGiven::no;
}

std::string status_text(const ServiceStatus& status, std::uint64_t now) {
  std::vector<std::string> lines = {
      "The service is in the state: " + std::string(service_state_name(status.state)) + '.'};
  if (!status.text.empty()) lines.push_back(status.text);
  lines.push_back("Told at " + time_text(status.issued) + ", for as long as until " +
                  time_text(status.valid_until) + '.');
  if (status.is_stale(now)) lines.push_back("That time is over: it says nothing of now.");
  return line_text(lines);
}

}  // namespace

Answer list_notices(Context& context) {
  const auto told = told_now<Notices>(context);
  std::vector<std::string> lines;
  const auto shown = told && told->document ? told->document->in_force(distributor_clock())
                                            : std::vector<Notice>();
  json list = Notices{shown}.to_json().at("notices");
  for (const Notice& notice : shown) {
    lines.push_back(std::string(severity_name(notice.severity)) + ": " + notice.title + " (" +
                    notice.id + ", until " + time_text(notice.until) + ")");
    lines.push_back(notice.text);
  }
  if (shown.empty()) lines.emplace_back("There are no notices.");
  for (std::string& line : freshness_lines(told)) lines.push_back(std::move(line));
  Answer answer{{{"notices", std::move(list)}}, line_text(lines)};
  add_freshness(answer.document, told);
  return answer;
}

Answer service_status(Context& context) {
  const Distributor distributor(context.root);
  std::optional<Told<ServiceStatus>> told;
  if (context.flag("--cached")) {
    told = distributor.cached<ServiceStatus>();
  } else {
    context.show(asking, 0, 0);
    told = distributor.fetch<ServiceStatus>(context.tuf());
  }
  const std::uint64_t now = distributor_clock();
  const bool known = told && told->document;
  Answer answer{{{"status", known ? told->document->to_json() : json()},
                 {"stale", known && told->document->is_stale(now)},
                 {"age_seconds", told ? json(told->age(now)) : json()}},
                known ? status_text(*told->document, now)
                      : "The distributor tells nothing of how the service does."};
  for (const std::string& line : freshness_lines(told)) answer.text += '\n' + line;
  add_freshness(answer.document, told);
  return answer;
}

Answer list_agreements(Context& context) {
  const auto told = told_now<Agreements>(context);
  const AgreementDecisions decisions(context.root);
  json list = json::array();
  std::vector<std::vector<std::string>> rows = {
      {"AGREEMENT", "VERSION", "STATE", "NEEDED BY", "TITLE"}};
  const Agreements all = told && told->document ? *told->document : Agreements();
  for (const auto& [id, agreement] : all.agreements) {
    const auto decision = decisions.find(id);
    list.push_back(agreement_document(agreement, decision));
    rows.push_back({id, agreement.version, decision_text(agreement, decision),
                    games_text(agreement), agreement.title});
  }
  std::vector<std::string> lines = {list.empty() ? "There are no agreements." : table_text(rows)};
  for (std::string& line : freshness_lines(told)) lines.push_back(std::move(line));
  Answer answer{{{"agreements", std::move(list)}}, line_text(lines)};
  add_freshness(answer.document, told);
  return answer;
}

Answer show_agreement(Context& context) {
  const Agreement agreement = known_agreement(context);
  const auto decision = AgreementDecisions(context.root).find(agreement.id);
  const std::string text =
      Distributor(context.root).text_of(agreement, reachable_repository(context));
  json document = agreement_document(agreement, decision);
  document["text"] = text;
  return {std::move(document),
          line_text({agreement.title + ", version " + agreement.version + " (" +
                         decision_text(agreement, decision) + "; needed by " +
                         games_text(agreement) + ")",
                     "", text, "",
                     "To agree: tavro agreements agree " + agreement.id + " --agreement-version " +
                         agreement.version + (agreement.minimum_age ? " --age-16-or-older" : "")})};
}

Answer agree_to(Context& context) {
  const Agreement agreement = known_agreement(context);
  const AgreementDecision decision =
      AgreementDecisions(context.root)
          .agree(agreement, context.option("--agreement-version"), age_of(context));
  return {{{"decision", decision.to_json()}},
          "You agreed to version " + decision.version + " of: " + agreement.title + '.'};
}

Answer withdraw_agreement(Context& context) {
  const AgreementDecision decision = AgreementDecisions(context.root).withdraw(context.subject());
  return {{{"decision", decision.to_json()}},
          "Withdrawn: " + decision.id + ". Games that need it do not start any more."};
}

Answer unlock_channel(Context& context) {
  const SecretInput code(kMaxUnlockCode, [&] { return context.stopped(); });
  context.show(asking, 0, 0);
  const GameCatalog catalog = GameLibrary(context.root).available(context.tuf());
  const auto names = UnlockedChannels(context.root).unlock(catalog, context.subject(), code.text());
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + name;
  return {{{"game_id", context.subject()}, {"channels", names}},
          "Opened for " + context.subject() + ": " + list + ". Choose it with tavro channel set " +
              context.subject() + ' ' + names.front()};
}

}  // namespace tavro::program
