#include "distributor/launch_gate.h"

#include "distributor/distributor.h"
#include "domain/error.h"
#include "domain/identifier.h"

namespace tavro {
namespace {

/// An installed game starts also while the repository is out of order. Whoever could make it so
/// could as well have cut the line.
std::optional<Told<Agreements>> agreements_for_a_start(const Distributor& distributor,
                                                       TufClient* tuf) {
  try {
    if (tuf != nullptr) return distributor.fetch<Agreements>(*tuf);
  } catch (const Error&) {
    // What it said last still holds.
  }
  return distributor.cached<Agreements>();
}

}  // namespace

std::vector<Agreement> open_agreements(const Agreements& agreements,
                                       const AgreementDecisions& decisions,
                                       std::string_view game_id) {
  std::vector<Agreement> open;
  for (const auto& [id, agreement] : agreements.agreements) {
    if (!agreement.is_needed_by(game_id)) continue;
    const auto decision = decisions.find(id);
    if (!decision || !decision->covers(agreement)) open.push_back(agreement);
  }
  return open;
}

void require_agreements(const std::filesystem::path& data_root, std::string_view game_id,
                        TufClient* tuf) {
  validate_identifier(game_id);
  const auto told = agreements_for_a_start(Distributor(data_root), tuf);
  if (!told || !told->document) return;
  const auto open = open_agreements(*told->document, AgreementDecisions(data_root), game_id);
  if (open.empty()) return;
  std::string titles;
  std::vector<std::string> commands;
  for (const Agreement& agreement : open) {
    titles += (titles.empty() ? "" : ", ") + agreement.title;
    commands.push_back("agreements show " + agreement.id);
    commands.push_back("agreements agree " + agreement.id + " --agreement-version " +
                       agreement.version + (agreement.minimum_age ? " --age-16-or-older" : ""));
  }
  throw Error("agreement_required", "Before this game starts, agree to: " + titles,
              std::move(commands));
}

}  // namespace tavro
