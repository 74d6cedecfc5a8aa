#include <chrono>
#include <utility>

#include "documents/agreements.h"
#include "documents/crash_service.h"
#include "documents/notices.h"
#include "documents/presentation.h"
#include "documents/service_status.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "publisher/commands.h"
#include "publisher/output.h"
#include "publisher/publishing.h"
#include "tuf/metadata.h"

namespace tavro {
namespace {

using std::chrono::seconds;

constexpr unsigned long long status_hours = 24;
constexpr unsigned long long most_status_hours = 744;

std::uint64_t seconds_of(TufTime time) {
  const auto count = std::chrono::duration_cast<seconds>(time.time_since_epoch()).count();
  require(count >= 0, "invalid_expiry", "A time before 1970 is no time of a notice");
  return static_cast<std::uint64_t>(count);
}

std::uint64_t now_in_seconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<seconds>(now).count());
}

/// The document as a client will read it, under the path where it looks for it.
template <typename Document>
void put(Repository& repository, const Arguments& arguments, const Document& document) {
  const std::string text = document_text(document.to_json());
  static_cast<void>(Document::parse(parse_json(text, Document::kMaxBytes)));
  repository.put_target(role_of(arguments), std::string(Document::kTarget), text);
}

template <typename Document>
CommandResult publish(const Arguments& arguments, const Document& document) {
  // Misuse is told before a repository is claimed for it.
  static_cast<void>(Document::parse(document.to_json()));
  return publish_change(arguments, GameCatalogs::untouched,
                        [&](Repository& repository) { put(repository, arguments, document); });
}

/// A text of the distributor's from a file.
std::string text_file(const Arguments& arguments, std::string_view option, std::size_t most) {
  std::string text = read_file(path_option(arguments, option), most);
  // As a document a text that is no UTF-8 would be refused; so it is here.
  static_cast<void>(document_text(text));
  require(!text.empty() && !has_control_characters(text, LineBreaks::allowed), "invalid_text", [&] {
    return "The text is empty or contains control characters: " + arguments.value(option);
  });
  return text;
}

CommandResult publish_notices(const Arguments& arguments, const CommandContext&) {
  const std::string source = read_file(path_option(arguments, "FILE"), Notices::kMaxBytes);
  json document = parse_json(source, Notices::kMaxBytes);
  return read_fields("invalid_service_document", "The notices have missing or malformed fields",
                     [&] {
                       for (json& notice : document.at("notices"))
                         for (const char* time : {"from", "until"})
                           notice.at(time) = seconds_of(parse_tuf_time(text_member(notice, time)));
                       document["schema_version"] = 1;
                       document["kind"] = Notices().to_json().at("kind");
                       return publish(arguments, Notices::parse(document));
                     });
}

CommandResult publish_status(const Arguments& arguments, const CommandContext&) {
  const std::uint64_t now = now_in_seconds();
  const std::uint64_t hours = arguments.number("--hours", 1, most_status_hours, status_hours);
  json document = ServiceStatus().to_json();
  document["state"] = arguments.value("--state");
  document["text"] = arguments.value("--text");
  document["issued"] = now;
  document["valid_until"] = now + hours * 3600;
  return publish(arguments, ServiceStatus::parse(document));
}

/// What is published; nothing yet is an empty list.
Agreements present_agreements(const Repository& repository) {
  try {
    const std::string text =
        repository.read_target(std::string(Agreements::kTarget), Agreements::kMaxBytes);
    return Agreements::parse(parse_json(text, Agreements::kMaxBytes));
  } catch (const Error& error) {
    if (error.code != "target_not_found") throw;
    return {};
  }
}

Agreement agreement_of(const Arguments& arguments, const std::string& text) {
  Agreement agreement;
  agreement.id = arguments.value("--id");
  agreement.version = arguments.value("--version");
  agreement.title = arguments.value("--title");
  agreement.text_length = text.size();
  agreement.text_sha256 = digest(text, "sha256");
  agreement.minimum_age = arguments.has("--minimum-age");
  agreement.every_game = arguments.has("--every-game");
  const std::vector<std::string>& games = arguments.values("--game");
  agreement.games.insert(games.begin(), games.end());
  require(agreement.every_game != !games.empty(), "usage",
          "Choose which games need it: --game ID, or --every-game");
  Agreements alone;
  alone.agreements.emplace(agreement.id, agreement);
  static_cast<void>(Agreements::parse(alone.to_json()));
  return agreement;
}

CommandResult add_agreement(const Arguments& arguments, const CommandContext&) {
  const std::string text = text_file(arguments, "--text", kMaxAgreementText);
  const Agreement agreement = agreement_of(arguments, text);
  return publish_change(arguments, GameCatalogs::untouched, [&](Repository& repository) {
    Agreements all = present_agreements(repository);
    const auto before = all.agreements.find(agreement.id);
    const bool changed_in_place = before != all.agreements.end() &&
                                  before->second.version == agreement.version &&
                                  before->second.text_sha256 != agreement.text_sha256;
    require(!changed_in_place, "agreement_version",
            "Players agreed to another text of this version; give the text a new one");
    all.agreements.insert_or_assign(agreement.id, agreement);
    repository.put_target(role_of(arguments),
                          agreement_text_target(agreement.id, agreement.version), text);
    put(repository, arguments, all);
  });
}

CommandResult remove_agreement(const Arguments& arguments, const CommandContext&) {
  return publish_change(arguments, GameCatalogs::untouched, [&](Repository& repository) {
    Agreements all = present_agreements(repository);
    const Agreement agreement = all.at(arguments.value("--id"));
    all.agreements.erase(agreement.id);
    repository.remove_target(role_of(arguments),
                             agreement_text_target(agreement.id, agreement.version));
    put(repository, arguments, all);
  });
}

CommandResult publish_crash_service(const Arguments& arguments, const CommandContext&) {
  CrashService service;
  service.url = arguments.value("--url");
  service.consent_version = arguments.value("--consent-version");
  service.consent_text = text_file(arguments, "--consent", CrashService::kMaxBytes);
  service.minimum_age = arguments.has("--minimum-age");
  return publish(arguments, service);
}

std::vector<OptionRule> agreement_options() {
  return signing_options(
      {{"--id", "ID", "The agreement", OptionUse::required},
       {"--version", "VERSION", "Of its text; a new one asks every player again",
        OptionUse::required},
       {"--title", "TEXT", "What players see of it first", OptionUse::required},
       {"--text", "FILE", "The whole text (UTF-8)", OptionUse::required},
       {"--game", "ID", "A game that does not start without it", OptionUse::repeated},
       {"--every-game", "", "No game starts without it", OptionUse::flag},
       {"--minimum-age", "", "Players must say that they are 16 or older", OptionUse::flag},
       delegator_rule});
}

}  // namespace

std::vector<PublishCommand> service_commands() {
  return {
      {"notices", "Publish what players are to read",
       signing_options({{"FILE", "", "JSON of \"notices\", with times as 2030-01-01T00:00:00Z",
                         OptionUse::required},
                        delegator_rule}),
       publish_notices},
      {"service-status", "Publish how the services do",
       signing_options({{"--state", "STATE", "operational, degraded, maintenance or outage",
                         OptionUse::required},
                        {"--text", "TEXT", "What players are told about it"},
                        {"--hours", "N", "How long it counts; 24"},
                        delegator_rule}),
       publish_status},
      {"agreement add", "Publish an agreement, or another version of it", agreement_options(),
       add_agreement},
      {"agreement remove", "Withdraw an agreement: its games start without it",
       signing_options({{"--id", "ID", "The agreement", OptionUse::required}, delegator_rule}),
       remove_agreement},
      {"crash-service", "Publish where reports of crashes go",
       signing_options(
           {{"--url", "URL", "The service: https:// and a host, with a path if need be",
             OptionUse::required},
            {"--consent-version", "VERSION", "Of the consent; a new one asks every player again",
             OptionUse::required},
            {"--consent", "FILE", "What becomes of reports (UTF-8), which players consent to",
             OptionUse::required},
            {"--minimum-age", "", "Players must say that they are 16 or older", OptionUse::flag},
            delegator_rule}),
       publish_crash_service},
  };
}

}  // namespace tavro
