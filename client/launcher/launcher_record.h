#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// Bound on the stored record.
inline constexpr std::size_t launcher_record_bytes = 32768;
/// Bound on a stored descriptor.
inline constexpr std::size_t launcher_descriptor_bytes = 524288;
/// Bound on a staging intent.
inline constexpr std::size_t staging_intent_bytes = 4096;

// What stands in the documents of the store. Each is read once, where it comes in, and written
// once, where it goes out. `further` holds the members that this client does not know, null without
// any: they survive a save, and count when two values are compared.
//
// A reader throws `launcher_state` for a member that is missing or malformed.

/// One version: its name in the store and the build that its descriptor declares.
struct LauncherReference {
  /// 64 lower-case hexadecimal characters.
  std::string manifest_sha256;
  std::string build_id;
  json further;

  /// Throws also what `validate_identifier` throws for the build.
  static LauncherReference parse(const json& document);
  json to_json() const;
  bool operator==(const LauncherReference&) const = default;
};

/// The open start of a candidate.
struct LauncherAttempt {
  /// 32 lower-case hexadecimal characters.
  std::string nonce;
  LauncherReference reference;
  json further;

  static LauncherAttempt parse(const json& document);
  json to_json() const;
  bool operator==(const LauncherAttempt&) const = default;
};

/// The last candidate that failed.
struct LauncherFailure {
  /// Nothing only in a record that somebody else wrote.
  std::optional<LauncherReference> reference;
  /// Why the version was given up, one of "startup_failed", "startup_unconfirmed" and
  /// "startup_interrupted", or another client's word; empty when the record has no text there.
  std::string problem;
  /// The failure that ended the start, as a code and a sentence; empty when nobody saw it.
  std::string code;
  std::string reason;
  json further;

  static LauncherFailure parse(const json& document);
  json to_json() const;
  bool operator==(const LauncherFailure&) const = default;
};

/// The record of a store; by default that of one that never saved any.
struct LauncherRecord {
  /// Number of saves so far.
  std::uint64_t generation = 0;
  /// The version that passed a confirmed start, and the one that was active before it.
  std::optional<LauncherReference> active;
  std::optional<LauncherReference> rollback;
  /// A verified version that waits for its first start.
  std::optional<LauncherReference> candidate;
  std::optional<LauncherAttempt> attempt;
  std::optional<LauncherFailure> failed_candidate;
  json further;

  /// Proves a stored record. Throws `unsupported_schema`, `launcher_state`, `invalid_version` for
  /// the generation, and what `validate_identifier` throws.
  static LauncherRecord parse(const json& document);
  json to_json() const;
  bool operator==(const LauncherRecord&) const = default;

  /// Whether a version has yet to prove itself.
  bool on_probation() const { return attempt || candidate; }
};

/// A reference or null.
std::optional<LauncherReference> optional_reference(const json& document);
/// The same where there must be one: `launcher_missing` with these words for null.
LauncherReference present_reference(const json& document, std::string_view missing);

/// The name of a version: 64 lower-case hexadecimal characters; throws `launcher_state`.
void hash_identity(std::string_view name);

/// 32 lower-case hexadecimal characters; throws `launcher_state`.
void nonce_identity(std::string_view nonce);

/// The document that explains the folder `staging/<nonce>`: what it is to become, or was.
struct StagingIntent {
  std::string nonce;
  LauncherReference reference;

  json to_json() const;
};

/// Whether the bytes are the intent of this folder; nothing else may be removed in its name.
bool is_staging_intent(std::string_view bytes, std::string_view nonce);

}  // namespace tavro
