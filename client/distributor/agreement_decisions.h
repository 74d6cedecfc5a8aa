#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "documents/agreements.h"
#include "domain/json.h"

namespace tavro {

/// Whether whoever decides says to be 16 or older.
enum class AgeGiven { no, sixteen_or_older };

/// What a player decided on one agreement.
struct AgreementDecision {
  std::string id;
  /// Of the text that was decided on.
  std::string version;
  std::string text_sha256;
  /// False after a withdrawal.
  bool agreed = false;
  AgeGiven age = AgeGiven::no;
  /// Seconds since 1970.
  std::uint64_t decided = 0;

  /// Whether it is a yes to just this text, by somebody who could give it.
  bool covers(const Agreement& agreement) const;

  /// Throws `unsupported_schema` for another version's, and `invalid_state`.
  static AgreementDecision parse(const json& document);
  json to_json() const;

  bool operator==(const AgreementDecision&) const = default;
};

/// The decisions of a data folder, one durable document each. Holds nothing open.
class AgreementDecisions {
 public:
  /// Touches nothing. Throws `unsafe_path` and `native_install_incomplete`.
  explicit AgreementDecisions(const std::filesystem::path& data_root);

  /// Nothing when the player never decided. A document that cannot be read stays, and the failure
  /// names its file. Throws `invalid_identity`.
  std::optional<AgreementDecision> find(std::string_view id) const;

  /// Throws `agreement_version` unless `version` is the one that the distributor has now, and
  /// `age_required` where the age has to be given and was not. Nothing is recorded then.
  AgreementDecision agree(const Agreement& agreement, std::string_view version, AgeGiven age) const;

  /// Needs no network. Throws `not_agreed` when there is nothing to withdraw.
  AgreementDecision withdraw(std::string_view id) const;

 private:
  std::filesystem::path path_of(std::string_view id) const;
  void store(const AgreementDecision& decision) const;

  std::filesystem::path folder_;
};

}  // namespace tavro
