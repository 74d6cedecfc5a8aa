#include "documents/agreements.h"

#include "documents/manifest.h"
#include "documents/service_fields.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"

namespace tavro {
namespace {

using service_fields::kInvalid;

constexpr char kind[] = "tavro-agreements";
constexpr std::size_t max_title_bytes = 200;

std::string identifier(const json& value) {
  auto id = value.get<std::string>();
  validate_identifier(id);
  return id;
}

void read_text(Agreement& agreement, const json& text) {
  require(has_text(text, "target", agreement_text_target(agreement.id, agreement.version)),
          kInvalid, "An agreement names another text than its own");
  agreement.text_length = size_value(text.at("length"));
  require(agreement.text_length >= 1 && agreement.text_length <= kMaxAgreementText, kInvalid,
          "The text of an agreement is missing or too long");
  agreement.text_sha256 = sha256(text.at("sha256"));
}

Agreement read_agreement(const json& value) {
  Agreement agreement;
  agreement.id = identifier(value.at("id"));
  agreement.version = identifier(value.at("version"));
  agreement.title = service_fields::text(value, "title", 1, max_title_bytes, LineBreaks::refused);
  read_text(agreement, value.at("text"));
  agreement.minimum_age = service_fields::truth(value, "minimum_age");
  agreement.every_game = service_fields::truth(value, "every_game");
  for (const json& game : service_fields::list(value, "games", kMaxAgreementGames))
    require(agreement.games.insert(identifier(game)).second, kInvalid,
            "An agreement names a game twice");
  require(!agreement.every_game || agreement.games.empty(), kInvalid,
          "An agreement of every game names single ones");
  return agreement;
}

Agreements read_agreements(const json& document) {
  Agreements all;
  for (const json& value : service_fields::list(document, "agreements", kMaxAgreements)) {
    Agreement agreement = read_agreement(value);
    const std::string id = agreement.id;
    require(all.agreements.emplace(id, std::move(agreement)).second, kInvalid,
            "Two agreements have the same identifier");
  }
  return all;
}

}  // namespace

std::string agreement_text_target(std::string_view id, std::string_view version) {
  return "service/agreements/" + std::string(id) + '/' + std::string(version) + ".txt";
}

const Agreement& Agreements::at(std::string_view id) const {
  const auto found = agreements.find(id);
  require(found != agreements.end(), "agreement_not_found",
          [&] { return "The distributor has no such agreement: " + std::string(id); },
          {"agreements"});
  return found->second;
}

Agreements Agreements::parse(const json& document) {
  service_fields::require_kind(document, kind);
  return read_fields(kInvalid, "The agreements have missing or malformed fields",
                     [&] { return read_agreements(document); });
}

json Agreements::to_json() const {
  json list = json::array();
  for (const auto& [id, agreement] : agreements)
    list.push_back({{"id", id},
                    {"version", agreement.version},
                    {"title", agreement.title},
                    {"text",
                     {{"target", agreement_text_target(id, agreement.version)},
                      {"length", agreement.text_length},
                      {"sha256", agreement.text_sha256}}},
                    {"minimum_age", agreement.minimum_age},
                    {"every_game", agreement.every_game},
                    {"games", agreement.games}});
  return {{"schema_version", 1}, {"kind", kind}, {"agreements", std::move(list)}};
}

}  // namespace tavro
