#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "distributor/agreement_decisions.h"
#include "documents/agreements.h"

namespace tavro {

class TufClient;

/// The agreements that this game needs and that the player has not agreed to as they stand now.
std::vector<Agreement> open_agreements(const Agreements& agreements,
                                       const AgreementDecisions& decisions,
                                       std::string_view game_id);

/// To be called before `GameLibrary::launch`. Goes by what the repository says now, or, without a
/// client (null) and whenever it cannot be asked, by what it said last; where it never was asked,
/// nothing is needed. Throws `agreement_required`, with the commands that read and decide, for a
/// game that needs an agreement which the player did not give, gave to another version, or
/// withdrew; what a decision that cannot be read throws; and as `Distributor::cached`.
void require_agreements(const std::filesystem::path& data_root, std::string_view game_id,
                        TufClient* tuf);

}  // namespace tavro
